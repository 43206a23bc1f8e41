#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite.
#   scripts/test.sh             optimised build
#   scripts/test.sh --sanitize  AddressSanitizer + UndefinedBehaviorSanitizer build
set -euo pipefail
cd "$(dirname "$0")/.."
preset=release
[ "${1:-}" = "--sanitize" ] && preset=sanitize
bash scripts/install-deps.sh
cmake --preset "$preset"
cmake --build --preset "$preset"
ctest --preset "$preset" -j2
