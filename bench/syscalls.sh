#!/usr/bin/env bash
# Counts the system calls of each operation of the library, for each
# setting: runs ROUNDS round trips (Send, Receive, Delete in one process) of
# "wm_bench --syscalls" under strace and prints the calls per operation,
# averaged over every round but the first (which opens and maps what later
# rounds may reuse), then which calls they are, for 100 bytes of data.
# Needs root (each run has its own IPC namespace) and strace; build first
# with scripts/bench.sh or: cmake --build build-bench --target wm_bench
set -euo pipefail
cd "$(dirname "$0")/.."
bench=${1:-build-bench/bench/wm_bench}
rounds=${ROUNDS:-20}
trace=$(mktemp)
trap 'rm -f "$trace"' EXIT

count() { # kind size -> "send receive delete total" and the names per operation
  strace -f -qq -o "$trace" "$bench" --syscalls "$1" "$2" "$rounds" >/dev/null
  awk -v rounds="$rounds" -v names="$3" '
    /write\(-1, "[a-z]+"/ {
      match($0, /"[a-z]+"/); op = substr($0, RSTART + 1, RLENGTH - 2)
      if (op == "send") ++round
      next
    }
    op != "" && op != "end" && round > 1 {
      sub(/^[0-9]+ +/, ""); call = $0; sub(/\(.*/, "", call)
      ++n[op]; ++by[op, call]
    }
    END {
      r = rounds - 1
      if (!names) {
        printf "%8.1f %8.1f %8.1f %8.1f\n", n["send"] / r, n["receive"] / r, n["delete"] / r,
               (n["send"] + n["receive"] + n["delete"]) / r
        exit
      }
      split("send receive delete", ops, " ")
      for (i = 1; i <= 3; ++i) {
        line = ""
        for (k in by) {
          split(k, part, SUBSEP)
          if (part[1] == ops[i]) line = line sprintf(" %s %g,", part[2], by[k] / r)
        }
        printf "  %-8s%s\n", ops[i], line
      }
    }' "$trace"
}

printf "%-7s %5s %8s %8s %8s %8s\n" setting data send receive delete total
for kind in QV_wm keep files wake lock fast; do
  for size in 0 100 8192; do
    printf "%-7s %5s " "$kind" "$size"
    count "$kind" "$size" ""
  done
done
for kind in QV_wm fast; do
  echo "$kind, 100 bytes:"
  count "$kind" 100 names
done
