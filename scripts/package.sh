#!/usr/bin/env bash
# Builds the Debian packages of the library and the tool with CPack's DEB
# generator: libgplibrary1, libqv-wm1, libqv-wm-dev and wmctl (see
# cmake/Packaging.cmake), for the machine's architecture or, with --m32, for
# i386. The tree is configured for /usr (multiarch library directory, no
# RPATH) in OUTDIR/build and the .deb files land in OUTDIR (default
# build-package/, or build-package-i386/). Nothing is installed.
# Usage: scripts/package.sh [--m32] [OUTDIR]
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
m32=OFF
if [ "${1:-}" = --m32 ]; then m32=ON; shift; fi
default=$src/build-package
[ $m32 = ON ] && default=$src/build-package-i386
out=$(mkdir -p "${1:-$default}" && cd "${1:-$default}" && pwd)

# The tests call this with the tools already in place.
[ -n "${QV_WM_NO_SETUP:-}" ] || "$src/scripts/setup.sh"
# The libraries go to Debian's multiarch directory of the target
# architecture, so that the amd64 and i386 libraries install side by side.
if [ $m32 = ON ]; then
  multiarch=$(dpkg-architecture -ai386 -qDEB_HOST_MULTIARCH 2>/dev/null)
else
  multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null)
fi
cmake -S "$src" -B "$out/build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DCMAKE_INSTALL_LIBDIR="lib/$multiarch" -DBUILD_TESTING=OFF -DQV_WM_DEB=ON \
  -DCMAKE_SKIP_INSTALL_RPATH=ON -DQV_WM_M32=$m32 >/dev/null
cmake --build "$out/build" -j"${QV_WM_JOBS:-$(nproc)}" >/dev/null
rm -f "$out"/*.deb
(cd "$out/build" && cpack -B "$out" >/dev/null)
rm -rf "$out/_CPack_Packages"
ls "$out"/*.deb
