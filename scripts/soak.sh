#!/usr/bin/env bash
# Soak: runs orlo-demo with 16 live channels for MINUTES and samples its RSS,
# open descriptors, threads and CPU every 15 s; then prints the RSS slope
# after the second minute and the engine's statistics.  Not part of CI.
#   scripts/soak.sh MINUTES [BUILD_DIR]     (default build/release)
set -euo pipefail
cd "$(dirname "$0")/.."
minutes=${1:?usage: scripts/soak.sh MINUTES [BUILD_DIR]}
build=${2:-build/release}
[ -x "$build/bin/orlo-demo" ] || { echo "soak: no $build/bin/orlo-demo; build it first" >&2; exit 1; }
work=$(mktemp -d)
trap 'kill "$pid" 2>/dev/null || true; rm -rf "$work"' EXIT
export GST_PLUGIN_PATH="$PWD/$build/gst-plugins"
export GST_REGISTRY_1_0="$PWD/$build/gst-registry.bin"
"$build/bin/orlo-demo" --channels 16 --duration $((minutes * 60)) --shell-port 0 \
  --out "$work/out" >"$work/demo.log" 2>&1 &
pid=$!
ticks=$(getconf CLK_TCK)
printf '%8s %10s %5s %8s %6s\n' seconds rss_kB fds threads cpu%
start=$(date +%s)
last_cpu=0
last_t=$start
: >"$work/samples"
while kill -0 "$pid" 2>/dev/null; do
  sleep 15
  [ -r "/proc/$pid/status" ] || break
  now=$(date +%s)
  rss=$(awk '/^VmRSS:/ {print $2}' "/proc/$pid/status" 2>/dev/null) || break
  threads=$(awk '/^Threads:/ {print $2}' "/proc/$pid/status" 2>/dev/null) || break
  fds=$(ls "/proc/$pid/fd" 2>/dev/null | wc -l)
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
wait "$pid" || echo "soak: orlo-demo ended with status $?"
# Least-squares slope of RSS over the samples after the second minute.
awk '$1 > 120 { n++; sx += $1; sy += $2; sxx += $1 * $1; sxy += $1 * $2 }
     END {
       if (n < 2) { print "soak: too few samples after the second minute for a slope"; exit }
       slope = (n * sxy - sx * sy) / (n * sxx - sx * sx)
       printf "soak: RSS slope after the second minute: %.1f kB/min over %d samples\n", slope * 60, n
     }' "$work/samples"
awk 'NR == 1 { f0 = $3; t0 = $4 } { if ($3 != f0) fd = 1; if ($4 != t0) th = 1 }
     END { printf "soak: fds %s, threads %s\n", fd ? "varied" : "flat at " f0, th ? "varied" : "flat at " t0 }' \
  "$work/samples"
echo "soak: the engine's statistics:"
grep -E 'orlo-demo: ( *[0-9]+ |port |[0-9.]+ s running|[0-9.]+ pictures)' "$work/demo.log" || tail -30 "$work/demo.log"
