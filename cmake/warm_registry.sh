#!/usr/bin/env bash
# Builds the GStreamer registry that the tests and the demo read, once per
# build, so that no test process scans plugins itself.  A sanitizer build's
# plugins need the sanitizer runtimes in the scanning process.  A cross
# build names the target's gst-inspect, behind its emulator, and the target's
# plugin folder:
#   warm_registry.sh <registry> <plugin dir> <ON|OFF> [<system plugin dir> <inspect command...>]
set -u
registry=$1 plugins=$2 sanitize=$3
shift 3
export GST_REGISTRY_1_0=$registry GST_PLUGIN_PATH=$plugins GST_REGISTRY_FORK=no
inspect=(gst-inspect-1.0)
if [ $# -ge 2 ]; then
  export GST_PLUGIN_SYSTEM_PATH_1_0=$1
  shift
  inspect=("$@")
fi
if [ "$sanitize" = ON ]; then
  export LD_PRELOAD="$(g++ -print-file-name=libasan.so) $(g++ -print-file-name=libubsan.so)"
  export ASAN_OPTIONS=detect_leaks=0
fi
# A registry that cannot be built is no failure of the build: each test
# process then scans for itself, slower but with the same result.
"${inspect[@]}" >/dev/null 2>&1 || echo "warm_registry: ${inspect[*]} failed; tests will scan plugins themselves"
