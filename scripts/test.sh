#!/usr/bin/env bash
# Builds every variant and runs every test:
#   native   x86_64, optimised with debug info, then its tests again with
#            every opt-in on (QV_WM_TEST_FASTPATH=1)
#   i386     the 32-bit build (cmake/i386-linux-gnu.cmake); its programs run
#            natively where the kernel runs i386 code, else through qemu-i386
#            (QV_WM_EMULATE=1 forces the emulator everywhere)
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
  # Tests that were skipped or sized down say why; CTest keeps that in its log
  # (a skip's reason is the line after GoogleTest's "file:line: Skipped").
  local log="build-test-$name/Testing/Temporary/LastTest.log"
  { grep -h -A1 ': Skipped$' "$log" | grep -v -e '^--$' -e ': Skipped$'
    grep -h 'sized for' "$log"; } | sort | uniq -c | sed "s/^ */=== $name: /" >&2 || true
}

variant native -DCMAKE_BUILD_TYPE=RelWithDebInfo
# The native tests again with every opt-in on (WM_FastPath=true in every
# configuration the tests write): each opt-in keeps every behaviour.
echo "=== native, every opt-in on (WM_FastPath): tests" >&2
QV_WM_TEST_FASTPATH=1 ctest --test-dir build-test-native -j"$jobs" --output-on-failure --timeout 300
# The i386 build also reads and writes files with the native build's tools.
variant i386 -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/i386-linux-gnu.cmake" \
  -DQV_WM_EMULATE="${QV_WM_EMULATE:-OFF}" -DQV_WM_PEER_BUILD="$PWD/build-test-native"
echo "=== i386: the tests ran $(sed -n 's/^QV_WM_RUN_MODE:INTERNAL=//p' build-test-i386/CMakeCache.txt)" >&2
variant asan -DCMAKE_BUILD_TYPE=Debug -DQV_WM_SANITIZE=address
# ThreadSanitizer sees threads inside one process (not across processes or
# shared memory): it runs the tests where several threads work at once.
variant tsan -DCMAKE_BUILD_TYPE=Debug -DQV_WM_SANITIZE=thread -DQV_WM_TSAN_ONLY=ON
# libFuzzer on the four file loaders (clang, ASan+UBSan), a bounded time each.
fuzz/run.sh "${QV_WM_FUZZ_SECONDS:-35}"
echo "=== all variants passed" >&2
