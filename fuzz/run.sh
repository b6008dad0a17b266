#!/usr/bin/env bash
# Builds the libFuzzer targets of the four file loaders (clang, ASan+UBSan) in
# build-fuzz/ and runs each for a bounded time, starting from its corpus:
#
#   fuzz/run.sh [SECONDS-PER-TARGET (default 35)] [TARGET...]   targets: names uids wqcf wddf
#
# New inputs go to build-fuzz/corpus/<target>/, never into the repository. A
# finding stops the run with its report; its input is in build-fuzz/findings/.
# Fix it, then add the input to fuzz/corpus/<target>/ as a regression case:
# libFuzzer starts from it next time and the test suite replays it.
set -euo pipefail
cd "$(dirname "$0")/.."
secs=${1:-35}
[ $# -gt 0 ] && shift
targets=("$@")
[ ${#targets[@]} -eq 0 ] && targets=(names uids wqcf wddf)
build=build-fuzz
# The harness works in a private IPC namespace, never on the host's queues.
if ! unshare --ipc true 2>/dev/null; then
  echo "=== fuzz: skipped: a private IPC namespace needs root" >&2
  exit 0
fi

echo "=== fuzz: configure and build" >&2
cmake -S . -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DQV_WM_SANITIZE=address -DQV_WM_FUZZ=ON -DBUILD_TESTING=OFF >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${targets[@]/#/fuzz_}" >/dev/null

mkdir -p "$build/findings"
for t in "${targets[@]}"; do
  # Room for a control file of 255 slots, and for a data file of 7 data slots.
  case $t in
    wqcf) len=16384 ;;
    wddf) len=65536 ;;
    *) len=4096 ;;
  esac
  mkdir -p "$build/corpus/$t"
  log="$build/fuzz-$t.log"
  echo "=== fuzz $t: ${secs}s" >&2
  if ! "$build/fuzz/fuzz_$t" -max_total_time="$secs" -max_len="$len" -timeout=20 \
      -rss_limit_mb=2560 -print_final_stats=1 -artifact_prefix="$build/findings/$t-" \
      "$build/corpus/$t" "fuzz/corpus/$t" >"$log" 2>&1; then
    tail -n 80 "$log" >&2
    echo "=== fuzz $t: FAILED; the input is in $build/findings/" >&2
    exit 1
  fi
  grep -E "^stat::number_of_executed_units|^stat::peak_rss_mb" "$log" | tr '\n' ' ' >&2
  echo >&2
done
echo "=== fuzz: no findings" >&2
