#!/usr/bin/env bash
# Drives a shell session with socat and compares every byte the server sent.
#   socat_session.sh <socat> [<emulator...>] <shell_server>
set -u
socat=$1
shift
work=$(mktemp -d)
mkfifo "$work/port"
"$@" >"$work/port" </dev/null &
pid=$!
trap 'kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; rm -rf "$work"' EXIT
exec 3<"$work/port"
read -r -t 30 port <&3 || { echo "the server gave no port"; exit 1; }

# The kernel shows the port as listening (state 0A) once zebshell has called listen().
listening() { awk -v p="$(printf ':%04X' "$port")" '$2 ~ p "$" && $4 == "0A" { n++ } END { exit !n }' /proc/net/tcp; }
deadline=$((SECONDS + 30))
until listening; do
  [ $SECONDS -lt $deadline ] || { echo "nothing listens on port $port"; exit 1; }
  sleep 0.02
done

# CR LF line ends as a terminal client sends them; quit ends the session and
# the server closes, which ends socat.
printf 'help help\r\nnosuch\r\nquit\r\n' | timeout 30 "$socat" -t 20 - "TCP:127.0.0.1:$port" >"$work/got" 2>"$work/err"

# Each prompt is followed by the line end sent on commit.
printf '%s\r\n' 'Welcome to vexshell!' \
  'Warnning: Do not open this telnet shell for release version!!!! ' 'vexsh:> ' \
  "Help for 'help': Help command" ' Usage: help [command]' \
  'Get help on [command], or a list of supported commands if a command is omitted.' \
  'vexsh:> ' 'nosuch: command not found' 'vexsh:> ' 'bye' >"$work/want"

cmp -s "$work/want" "$work/got" && { echo "1 passed, 0 failed"; exit 0; }
echo "socat session differs; wanted then got:"
od -c "$work/want" | tail -n 8
od -c "$work/got" | tail -n 8
cat "$work/err"
exit 1
