#!/usr/bin/env bash
# Builds the Debian packages (liborlo0, liborlo-dev, liborlo-standins) from
# this tree, checks them with lintian and leaves them in build/debian/.
# Installs debhelper and lintian first when they are missing.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh --packaging
export DEB_BUILD_OPTIONS="${DEB_BUILD_OPTIONS:-parallel=$(nproc)}"
dpkg-buildpackage -b -us -uc
# dpkg-buildpackage writes beside the tree; gather what it made.
changes=../$(dpkg-parsechangelog -S Source)_$(dpkg-parsechangelog -S Version)_$(dpkg-architecture -qDEB_HOST_ARCH).changes
out=build/debian
mkdir -p "$out"
for f in $(awk '/^Files:/ {on = 1; next} /^[^ ]/ {on = 0} on {print $5}' "$changes"); do
  mv "../$f" "$out/"
done
mv "$changes" "$out/"
debian/rules clean >/dev/null
lintian --fail-on error "$out/$(basename "$changes")"
ls -l "$out"
