#!/usr/bin/env bash
# Runs the built orlo-demo with the stand-in elements on the plugin path.
set -euo pipefail
cd "$(dirname "$0")/.."
build=build/release
export GST_PLUGIN_PATH="$PWD/$build/gst-plugins"
export GST_REGISTRY_1_0="$PWD/$build/gst-registry.bin"
exec "$build/bin/orlo-demo" "$@"
