#!/usr/bin/env bash
# Installs what is missing, builds the demo (and what it links), and runs the
# main job (orlo-demo).  Arguments go to orlo-demo (try --help).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake --preset release
cmake --build --preset release -j"$(nproc)" --target orlo-demo
exec bash scripts/run-demo.sh "$@"
