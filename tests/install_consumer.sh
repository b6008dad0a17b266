#!/bin/bash
# Installs the build tree into a temporary prefix and builds two small
# consumers against it: one with pkg-config, one with find_package(QV_wm).
set -euo pipefail
build=$1 cxx=$2 arch=${3:-} emu=${4:-} # emu: the emulator for this build's programs, if any
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null

cat >"$tmp/prog.cpp" <<'CPP'
#include <WorkMessages.h>
int main() { return sizeof(_WQCF_) == 64 && M_OK == 0 ? 0 : 1; }
CPP
export PKG_CONFIG_PATH="$tmp/prefix/lib/pkgconfig"
# shellcheck disable=SC2046
"$cxx" $arch "$tmp/prog.cpp" -o "$tmp/prog" $(pkg-config --cflags --libs QV_wm)
$emu "$tmp/prog"

mkdir "$tmp/cm"
cat >"$tmp/cm/CMakeLists.txt" <<'CM'
cmake_minimum_required(VERSION 3.25)
project(consumer CXX)
find_package(QV_wm REQUIRED)
add_executable(prog2 ../prog.cpp)
target_link_libraries(prog2 PRIVATE QV_wm::QV_wm)
CM
cmake -S "$tmp/cm" -B "$tmp/cm/build" -DCMAKE_PREFIX_PATH="$tmp/prefix" \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$arch" -DCMAKE_EXE_LINKER_FLAGS="$arch" >/dev/null
cmake --build "$tmp/cm/build" >/dev/null
$emu "$tmp/cm/build/prog2"
echo "install_consumer: pkg-config and find_package consumers built and ran"
