#!/usr/bin/env bash
# The cross build and its suite under emulation, step by step:
#   packages  the cross compiler, mmdebstrap and qemu-user on this machine
#   sysroot   the target's libraries, unpacked once into build/sysroot-<arch>
#   emulator  the target's gst-inspect starts under qemu
#   configure, build, tests
# Called as: bash scripts/test.sh --arch armhf
set -euo pipefail
cd "$(dirname "$0")/.."
arch=$1
case "$arch" in
  armhf) qemu=qemu-arm ;;
  *) echo "test.sh: unknown architecture '$arch' (known: armhf)" >&2; exit 2 ;;
esac
root=$PWD/build/sysroot-$arch
step=
trap '[ -n "$step" ] && { echo "test.sh --arch $arch: step \"$step\" failed; repeat with: bash scripts/test.sh --arch $arch" >&2; }' EXIT
run() {
  step=$1
  shift
  local start=$SECONDS
  "$@"
  echo "step $step: $((SECONDS - start)) s"
}
emulator_starts() {
  local said
  said=$("$qemu" -L "$root" "$root/usr/bin/gst-inspect-1.0" --version) || return 1
  grep -q '^GStreamer 1\.' <<<"$said"
}
run packages bash scripts/install-deps.sh --arch "$arch"
run sysroot bash scripts/make-sysroot.sh "$arch"
run emulator emulator_starts
run configure cmake --preset "$arch"
run build cmake --build --preset "$arch" -j"$(nproc)"
step=
ctest --preset "$arch" -j"$(nproc)"
