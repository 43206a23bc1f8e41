#!/usr/bin/env bash
# Drives a shell session with socat and compares every byte the server sent.
#   socat_session.sh <socat> [<emulator...>] <shell_server>
set -u
socat=$1
shift
work=$(mktemp -d)
"$@" >"$work/port" </dev/null &
pid=$!
trap 'kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null; rm -rf "$work"' EXIT

for _ in $(seq 200); do
  [ -s "$work/port" ] && break
  sleep 0.05
done
port=$(head -n 1 "$work/port")
[ -n "$port" ] || { echo "the server gave no port"; exit 1; }

# CR LF line ends as a terminal client sends them; quit ends the session and
# the server closes, which ends socat. Connecting may race the listener's
# start, so it is tried a few times.
for _ in $(seq 50); do
  printf 'help help\r\nnosuch\r\nquit\r\n' |
    timeout 30 "$socat" -t 20 - "TCP:127.0.0.1:$port" >"$work/got" 2>"$work/err" && break
  sleep 0.1
done

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
