#!/usr/bin/env bash
# Installs what is missing, builds, and runs the whole test suite.
#   scripts/test.sh               optimised build
#   scripts/test.sh --sanitize    AddressSanitizer + UndefinedBehaviorSanitizer build
#   scripts/test.sh --arch armhf  32-bit ARM cross build, the suite under qemu-arm
set -euo pipefail
cd "$(dirname "$0")/.."
preset=release
case "${1:-}" in
  --sanitize) preset=sanitize ;;
  --arch) exec bash scripts/test-cross.sh "${2:-}" ;;
esac
bash scripts/install-deps.sh
cmake --preset "$preset"
cmake --build --preset "$preset" -j"$(nproc)"
ctest --preset "$preset" -j"$(nproc)"
