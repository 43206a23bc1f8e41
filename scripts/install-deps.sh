#!/usr/bin/env bash
# Installs what the build, the tests and the demo need on Debian 12. Safe to run again.
#   install-deps.sh              build, tests, demo
#   install-deps.sh --packaging  also what building the Debian packages needs
set -euo pipefail
PKGS=(
  build-essential cmake ninja-build pkg-config git
  libglib2.0-dev
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav
  libavcodec-dev libavformat-dev libavutil-dev libswscale-dev
  libyuv-dev libhwy-dev libjpeg62-turbo-dev libpng-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev socat
  ffmpeg libgstrtspserver-1.0-dev
)
[ "${1:-}" = "--packaging" ] && PKGS+=(debhelper dpkg-dev fakeroot lintian)
missing=()
for p in "${PKGS[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
# A machine that has everything needs neither the network nor root.
[ "${#missing[@]}" -eq 0 ] && exit 0
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends "${missing[@]}"
