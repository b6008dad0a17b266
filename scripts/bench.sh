#!/usr/bin/env bash
# Builds the library and the benchmarks in release mode (build-bench/) and
# prints one table: every operation of the library against the floor of its
# system calls, against SQLite and POSIX message queues, with the queue's
# depth, parallel sender/receiver pairs and the latency of a waiting
# receiver, then (without arguments) the cost of WM_RecoverDeadOwner. Takes
# about two minutes and needs root: each benchmark runs in
# an IPC namespace of its own. Arguments go to the benchmark program (Google
# Benchmark flags such as --benchmark_filter=ops/ or --benchmark_out=run.json).
# `scripts/bench.sh bridge` instead measures the cross-host bridge (two
# bridges and a server on this machine) beside the local library.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DQV_WM_BUILD_BENCH=ON \
  -DBUILD_TESTING=OFF >/dev/null
if [ "${1:-}" = bridge ]; then
  cmake --build build-bench -j"$(nproc)" --target wm_bridge_bench >/dev/null
  exec build-bench/bench/wm_bridge_bench "$PWD/build-bench/tools/wmbridge"
fi
cmake --build build-bench -j"$(nproc)" --target wm_bench wm_recovery_bench >/dev/null
build-bench/bench/wm_bench "$@"
# Without arguments, also what WM_RecoverDeadOwner costs (about 20 seconds).
if [ $# -eq 0 ]; then build-bench/bench/wm_recovery_bench; fi
