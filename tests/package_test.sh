#!/bin/bash
# The Debian packages as a user gets them: scripts/package.sh builds them
# into OUT, they are unpacked into a temporary root (nothing is installed on
# the machine), a consumer builds through pkg-config against that root and
# runs, wmctl runs from it, each package holds what its name promises, and
# lintian reports no error on them.
# Usage: package_test.sh SRCDIR OUTDIR
set -euo pipefail
src=$1 out=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail() { echo "package_test: $*" >&2; exit 1; }

QV_WM_NO_SETUP=1 QV_WM_JOBS=2 "$src/scripts/package.sh" "$out" >/dev/null
arch=$(dpkg --print-architecture)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
lib=usr/lib/$multiarch
declare -A expect=(
  [libgplibrary1]="./$lib/libGPLibrary.so.1 ./$lib/libGPLibrary.so.1.0.0"
  [libqv-wm1]="./$lib/libQV_wm.so.1 ./$lib/libQV_wm.so.1.0.0"
  [libqv-wm-dev]="./usr/include/WorkMessages.h ./$lib/libQV_wm.so ./$lib/libGPLibrary.so
                  ./$lib/pkgconfig/QV_wm.pc ./$lib/cmake/QV_wm/QV_wmConfig.cmake"
  [wmctl]="./usr/bin/wmctl ./usr/share/man/man1/wmctl.1.gz"
)
for pkg in "${!expect[@]}"; do
  deb=$out/${pkg}_*_$arch.deb
  # shellcheck disable=SC2086
  [ -f $deb ] || fail "no package $pkg for $arch in $out"
  # shellcheck disable=SC2086
  listing=$(dpkg-deb -c $deb | awk '{ print $6 }')
  for f in ${expect[$pkg]} ./usr/share/doc/$pkg/copyright; do
    grep -qxF "$f" <<<"$listing" || fail "$pkg lacks $f"
  done
  # shellcheck disable=SC2086
  dpkg-deb -x $deb "$tmp/root"
done
# The shared libraries' files belong to the runtime packages only.
# shellcheck disable=SC2086
if dpkg-deb -c $out/libqv-wm-dev_*.deb | awk '{ print $6 }' | grep -q '\.so\.'; then
  fail "libqv-wm-dev holds a versioned library file"
fi

cat >"$tmp/prog.cpp" <<'CPP'
#include <WorkMessages.h>
int main() { return sizeof(_WQCF_) == 64 && M_OK == 0 ? 0 : 1; }
CPP
export PKG_CONFIG_LIBDIR="$tmp/root/$lib/pkgconfig"
# shellcheck disable=SC2046
g++ "$tmp/prog.cpp" -o "$tmp/prog" $(pkg-config --cflags --libs QV_wm)
"$tmp/prog" || fail "the consumer built against the packages does not run"
LD_LIBRARY_PATH="$tmp/root/$lib" "$tmp/root/usr/bin/wmctl" --help | grep -q "metrics" ||
  fail "wmctl --help from the packages"

# lintian: warnings are allowed, errors are not.
report=$(lintian --allow-root --tag-display-limit 0 "$out"/*_"$arch".deb 2>&1 || true)
echo "$report"
if grep -q '^E:' <<<"$report"; then fail "lintian reports errors"; fi
echo "package_test: packages built, unpacked, used and checked"
