#!/usr/bin/env bash
# Builds the GStreamer registry that the tests and the demo read, once per
# build, so that no test process scans plugins itself.  A sanitizer build's
# plugins need the sanitizer runtimes in the scanning process.
set -u
registry=$1 plugins=$2 sanitize=$3
export GST_REGISTRY_1_0=$registry GST_PLUGIN_PATH=$plugins GST_REGISTRY_FORK=no
if [ "$sanitize" = ON ]; then
  export LD_PRELOAD="$(g++ -print-file-name=libasan.so) $(g++ -print-file-name=libubsan.so)"
  export ASAN_OPTIONS=detect_leaks=0
fi
gst-inspect-1.0 >/dev/null 2>&1 || true
