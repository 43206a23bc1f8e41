#!/usr/bin/env bash
# Installs a build into a fresh prefix the way an application developer
# would, then builds and runs examples/consumer against that prefix through
# orlo.pc and through the CMake package, with nothing pointing back into the
# source or the build tree.
#   check_install.sh <build dir> <source dir> <libdir relative to the prefix>
set -u
build=$1 src=$2 work=$(mktemp -d) fail=0
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix lib=$work/prefix/$3
bad() { echo "FAIL: $*"; fail=1; }

# An older install lies there already: its file and links must go.
mkdir -p "$lib" && touch "$lib/liborlo.so.0.0.1"
ln -s liborlo.so.0.0.1 "$lib/liborlo.so.0" && ln -s liborlo.so.0 "$lib/liborlo.so"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 ||
  { cat "$work/install.log"; bad "install failed"; exit 1; }
[ -e "$lib/liborlo.so.0.0.1" ] && bad "the older library file is still there"
real=$(readlink -f "$lib/liborlo.so")
case "$real" in "$lib"/liborlo.so.0.*.*) ;; *) bad "liborlo.so leads to $real" ;; esac

# Nothing installed leads back to the trees it was built from: no text file
# names them and no library searches them (debug info may name them).
leaks=$(grep -rlIF -e "$src" -e "$build" "$prefix" 2>/dev/null)
[ -n "$leaks" ] && bad "installed files name the source or build tree: $leaks"
while read -r so; do
  readelf -d "$so" | grep -E 'RUNPATH|RPATH' | grep -qF -e "$src" -e "$build" &&
    bad "$so searches the build tree"
done < <(find "$prefix" -name '*.so*' -type f)

# The consumer builds from a copy, so that no path leads back to the source.
cp -r "$src/examples/consumer" "$work/consumer"
for way in config pkgconfig; do
  opt=-DCONSUMER_USE_PKGCONFIG=$([ $way = pkgconfig ] && echo ON || echo OFF)
  out=$work/build-$way
  if ! env -u LD_LIBRARY_PATH PKG_CONFIG_PATH="$lib/pkgconfig" \
      cmake -S "$work/consumer" -B "$out" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" "$opt" \
      >"$work/$way.log" 2>&1 || ! cmake --build "$out" >>"$work/$way.log" 2>&1; then
    cat "$work/$way.log"; bad "consumer does not build ($way)"; continue
  fi
  grep -rlF -e "$src" -e "$build" "$out/build.ninja" "$out/CMakeCache.txt" >/dev/null &&
    bad "consumer build ($way) refers to the source or build tree"
  env -u LD_LIBRARY_PATH -u GST_PLUGIN_PATH "$out/orlo-consumer" || bad "consumer fails ($way)"
done

# GStreamer finds the stand-in elements in the prefix's plugin folder.
elements=$(env GST_PLUGIN_PATH="$lib/gstreamer-1.0" GST_REGISTRY_1_0="$work/registry.bin" \
  gst-inspect-1.0 2>/dev/null)
for element in lumensrc kelsstsrc kelappsink; do
  grep -qE "^[a-z]+: +$element:" <<<"$elements" || bad "gst-inspect-1.0 does not find $element"
done

[ $fail -eq 0 ] && echo "1 passed, 0 failed" || echo "0 passed, 1 failed"
exit $fail
