#!/usr/bin/env bash
# Soak: runs orlo-demo with 16 live channels for MINUTES and samples its RSS,
# open descriptors, threads and CPU every 15 s; then ends it with SIGINT and
# prints the RSS slope after the second minute and the engine's statistics.
# The demo walks its short timeline of display modes first and then stays in
# mode 9, so that the samples after the second minute see a steady state.
# Not part of CI.
#   scripts/soak.sh MINUTES [BUILD_DIR]     (default build/release)
set -uo pipefail
cd "$(dirname "$0")/.."
minutes=${1:?usage: scripts/soak.sh MINUTES [BUILD_DIR]}
build=${2:-build/release}
[ -x "$build/bin/orlo-demo" ] || { echo "soak: no $build/bin/orlo-demo; build it first" >&2; exit 1; }
work=$(mktemp -d)
pid=
trap '[ -n "$pid" ] && kill "$pid" 2>/dev/null; rm -rf "$work"' EXIT
export GST_PLUGIN_PATH="$PWD/$build/gst-plugins"
export GST_REGISTRY_1_0="$PWD/$build/gst-registry.bin"
"$build/bin/orlo-demo" --channels 16 --forever --shell-port 0 --out "$work/out" \
  >"$work/demo.log" 2>&1 &
pid=$!
ticks=$(getconf CLK_TCK)
start=$(date +%s)
end=$((start + minutes * 60))
last_cpu=0
last_t=$start
printf '%8s %10s %5s %8s %6s\n' seconds rss_kB fds threads cpu%
while [ "$(date +%s)" -lt "$end" ]; do
  sleep 15
  now=$(date +%s)
  # The demo gone early: its status and its log tell why.
  rss=$(awk '/^VmRSS:/ {print $2}' "/proc/$pid/status" 2>/dev/null) || break
  threads=$(awk '/^Threads:/ {print $2}' "/proc/$pid/status" 2>/dev/null) || break
  fds=$(ls "/proc/$pid/fd" 2>/dev/null | wc -l) || break
  # utime and stime: fields 14 and 15, counted after the command's parentheses.
  cpu=$(sed 's/.*) //' "/proc/$pid/stat" 2>/dev/null | awk '{print $12 + $13}') || break
  [ -n "$rss" ] || break
  pct=$(awk -v c="$cpu" -v lc="$last_cpu" -v t="$ticks" -v dt=$((now - last_t)) \
        'BEGIN { printf "%.0f", (dt > 0 ? 100 * (c - lc) / t / dt : 0) }')
  last_cpu=$cpu
  last_t=$now
  printf '%8d %10d %5d %8d %6s\n' $((now - start)) "$rss" "$fds" "$threads" "$pct" |
    tee -a "$work/samples"
done
kill -INT "$pid" 2>/dev/null
wait "$pid"
echo "soak: orlo-demo ended with status $?"
pid=
# Least-squares slope of RSS over the samples after the second minute.
awk '$1 > 120 { n++; sx += $1; sy += $2; sxx += $1 * $1; sxy += $1 * $2 }
     END {
       if (n < 2) { print "soak: too few samples after the second minute for a slope"; exit }
       slope = (n * sxy - sx * sy) / (n * sxx - sx * sx)
       printf "soak: RSS slope after the second minute: %.1f kB/min over %d samples\n", slope * 60, n
     }' "$work/samples"
awk '{ if (NR == 1 || $3 < f0) f0 = $3; if ($3 > f1) f1 = $3; if (NR == 1 || $4 < t0) t0 = $4; if ($4 > t1) t1 = $4 }
     END { printf "soak: fds %d..%d, threads %d..%d\n", f0, f1, t0, t1 }' "$work/samples"
echo "soak: the engine's statistics:"
grep -E '^orlo-demo: ([0-9.]+ s running|port |  *[0-9]+ |[0-9.]+ pictures)|^ravel statistics|^ *port |^ *[0-9]+ +[0-9]+ ' \
  "$work/demo.log" || tail -30 "$work/demo.log"
