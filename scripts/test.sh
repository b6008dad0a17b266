#!/usr/bin/env bash
# Builds every variant and runs every test:
#   native   x86_64, optimised with debug info
#   i386     the 32-bit build (-m32)
#   asan     x86_64 with AddressSanitizer and UndefinedBehaviorSanitizer
#   tsan     x86_64 with ThreadSanitizer, the multi-threaded tests only
#   fuzz     the file loaders under libFuzzer (fuzz/run.sh, in build-fuzz/)
# Each build lives in build-test-<variant>/ of the source tree.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

jobs=$(nproc)
variant() {
  local name=$1; shift
  echo "=== $name: configure and build" >&2
  cmake -S . -B "build-test-$name" "$@" >/dev/null
  cmake --build "build-test-$name" -j"$jobs" >/dev/null
  echo "=== $name: tests" >&2
  ctest --test-dir "build-test-$name" -j"$jobs" --output-on-failure --timeout 300
}

variant native -DCMAKE_BUILD_TYPE=RelWithDebInfo
# The i386 build also reads and writes files with the native build's tools.
variant i386 -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQV_WM_M32=ON \
  -DQV_WM_PEER_BUILD="$PWD/build-test-native"
variant asan -DCMAKE_BUILD_TYPE=Debug -DQV_WM_SANITIZE=address
# ThreadSanitizer sees threads inside one process (not across processes or
# shared memory): it runs the tests where several threads work at once.
variant tsan -DCMAKE_BUILD_TYPE=Debug -DQV_WM_SANITIZE=thread -DQV_WM_TSAN_ONLY=ON
# libFuzzer on the four file loaders (clang, ASan+UBSan), a bounded time each.
fuzz/run.sh "${QV_WM_FUZZ_SECONDS:-35}"
echo "=== all variants passed" >&2
