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
cmake --build --preset "$preset" -j"$(nproc)"
# A case that fails is run again up to twice before it counts as failed: the
# machine is shared and a few end-to-end cases depend on the scheduler.
ctest --preset "$preset" -j"$(nproc)" --repeat until-pass:3
