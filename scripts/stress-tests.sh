#!/usr/bin/env bash
# Runs the release suite again and again to bring out races; not part of CI.
#   scripts/stress-tests.sh [N]         N runs in a row (default 20)
#   scripts/stress-tests.sh --load [N]  N runs (default 5) while every core is
#                                       kept busy by another process
# Stops at the first failing run and prints how long each run took.
set -euo pipefail
cd "$(dirname "$0")/.."
load=0
if [ "${1:-}" = "--load" ]; then
  load=1
  shift
fi
runs=${1:-$([ "$load" = 1 ] && echo 5 || echo 20)}

cmake --preset release >/dev/null
cmake --build --preset release -j2

busy=()
stop_load() {
  for pid in "${busy[@]}"; do kill "$pid" 2>/dev/null || true; done
}
trap stop_load EXIT
if [ "$load" = 1 ]; then
  for _ in $(seq "$(nproc)"); do
    (while :; do :; done) &
    busy+=("$!")
  done
fi

echo "load before: $(uptime)"
start=$(date +%s)
for i in $(seq "$runs"); do
  t0=$(date +%s)
  if ! ctest --preset release -j2 >"build/release/stress-run-$i.log" 2>&1; then
    echo "run $i FAILED after $(($(date +%s) - t0)) s; see build/release/stress-run-$i.log"
    grep -E 'Failed|\*\*\*' "build/release/stress-run-$i.log" | head -20
    exit 1
  fi
  echo "run $i passed in $(($(date +%s) - t0)) s"
done
echo "$runs runs passed in $(($(date +%s) - start)) s; load after: $(uptime)"
