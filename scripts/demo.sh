#!/usr/bin/env bash
# Installs what is missing, builds, and runs the main job (orlo-demo).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset release
cmake --build --preset release
exec bash scripts/run-demo.sh "$@"
