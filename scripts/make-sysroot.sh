#!/usr/bin/env bash
# Makes the target's root folder for a cross build: Debian's armhf (or arm64)
# packages of the libraries the build links and the tests load, unpacked
# with mmdebstrap into build/sysroot-<arch>.  Made once and reused; it is
# built in a side folder and renamed only when complete, so a folder that
# stands under the final name is always whole.
#   scripts/make-sysroot.sh armhf|arm64
set -euo pipefail
cd "$(dirname "$0")/.."
arch=${1:?usage: make-sysroot.sh armhf|arm64}
root=$PWD/build/sysroot-$arch

# The -dev packages pull in the runtime libraries; the plugin packages are
# what the tests' pipelines load under the emulator.
PKGS=(
  libc6-dev libstdc++-12-dev
  libglib2.0-dev libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly gstreamer1.0-libav
  libavcodec-dev libavformat-dev libavutil-dev libswscale-dev
  libyuv-dev libhwy-dev libjpeg62-turbo-dev libpng-dev
  libgtest-dev libgmock-dev libbenchmark-dev libgstrtspserver-1.0-dev
)
# The marker of a complete folder holds the package list it was made from:
# a folder made from another list is made again.
wanted=$(printf '%s\n' "$arch" "${PKGS[@]}")
if [ -f "$root/.complete" ] && [ "$(cat "$root/.complete")" = "$wanted" ]; then
  echo "sysroot: reusing $root"
  exit 0
fi
partial=$root.partial
rm -rf "$partial"
mkdir -p "$(dirname "$root")"
echo "sysroot: unpacking ${#PKGS[@]} packages and their dependencies for $arch"
include=$(IFS=,; echo "${PKGS[*]}")
# Only the main suite: its indices are the ones every mirror keeps in step
# for all architectures.
if ! mmdebstrap --quiet --variant=extract --arch="$arch" --include="$include" \
      bookworm "$partial" "deb http://deb.debian.org/debian bookworm main"; then
  rm -rf "$partial"
  echo "sysroot: mmdebstrap failed (download or package set); nothing was kept." >&2
  echo "sysroot: repeat with: bash scripts/make-sysroot.sh $arch" >&2
  exit 1
fi

# Packages link some development names absolutely (libm.so -> /lib/...):
# inside the root folder they must point into it, not at the host's files.
while IFS= read -r -d '' link; do
  target=$(readlink "$link")
  ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$partial$target")" "$link"
done < <(find "$partial/lib" "$partial/usr/lib" -type l -lname '/*' -print0)

# Unpacked packages set up no alternatives: the BLAS and LAPACK that
# libavcodec's plugin loads are linked by hand where the loader looks.
libdir=$(find "$partial/usr/lib" -mindepth 1 -maxdepth 1 -type d -name '*-linux-gnu*' | head -n 1)
for alt in blas/libblas.so.3 lapack/liblapack.so.3; do
  if [ -e "$libdir/$alt" ] && [ ! -e "$libdir/$(basename "$alt")" ]; then
    ln -sfn "$alt" "$libdir/$(basename "$alt")"
  fi
done

printf '%s\n' "$wanted" >"$partial/.complete"
rm -rf "$root"
mv "$partial" "$root"
echo "sysroot: $root is ready ($(du -sh "$root" | cut -f1))"
