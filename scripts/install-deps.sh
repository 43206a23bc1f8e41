#!/usr/bin/env bash
# Installs what the build, the tests and the demo need on Debian 12. Safe to run again.
#   install-deps.sh               build, tests, demo
#   install-deps.sh --packaging   also what building the Debian packages needs
#   install-deps.sh --arch armhf  the cross build's: compiler, mmdebstrap, qemu-user
set -euo pipefail
again="bash scripts/install-deps.sh $*"
PKGS=(
  build-essential cmake ninja-build pkg-config git
  libglib2.0-dev
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav
  libavcodec-dev libavformat-dev libavutil-dev libswscale-dev
  libyuv-dev libhwy-dev libjpeg62-turbo-dev libpng-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  ffmpeg libgstrtspserver-1.0-dev
)
[ "${1:-}" = "--packaging" ] && PKGS+=(debhelper dpkg-dev fakeroot lintian)
# The target's libraries come from its own root folder (scripts/make-sysroot.sh).
CROSS_armhf=(
  cmake ninja-build pkg-config git ffmpeg
  g++-arm-linux-gnueabihf binutils-arm-linux-gnueabihf mmdebstrap qemu-user
)
if [ "${1:-}" = "--arch" ]; then
  case "${2:-}" in
    armhf) PKGS=("${CROSS_armhf[@]}") ;;
    *) echo "install-deps: unknown architecture '${2:-}' (known: armhf)" >&2; exit 2 ;;
  esac
fi
missing=()
for p in "${PKGS[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
# A machine that has everything needs neither the network nor root.
[ "${#missing[@]}" -eq 0 ] && exit 0
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
# apt installs all or nothing; a run cut short earlier is finished first.
fail() {
  echo "install-deps: step failed: $1" >&2
  echo "install-deps: repeat with: $again (it finishes what this run left)" >&2
  exit 1
}
dpkg --configure -a || fail "finishing an earlier interrupted install (dpkg --configure -a)"
apt-get update || fail "apt-get update"
apt-get install -y --no-install-recommends "${missing[@]}" || fail "apt-get install ${missing[*]}"
