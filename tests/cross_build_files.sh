#!/bin/bash
# Files written by one build load unchanged in the other, both ways. One
# build's wmctl queues a known set of messages (binary data ending in zero
# bytes, empty to full size; every fourth high priority, the first left received,
# the second handed back for retry with user flags). The other build's wmctl then
# decodes every field of every record and every data byte exactly as the
# writer's does (dump), and its library delivers each pending message in
# order with its data byte for byte, then the retried one with its flags.
set -euo pipefail
n=8

# A holder keeps the shared state (and so the received records) alive
# between the writer's commands; without it each command loads the files.
hold() {
  "$@" recv PROCA --wait 600 > /dev/null 2>&1 &
  holder=$!
  trap 'kill $holder 2> /dev/null || true' EXIT
  for _ in $(seq 600); do # until it is attached to the Controls segment (key 1050)
    ipcs -m | awk '$1 == "0x0000041a" && $6 > 0 {f = 1} END {exit !f}' && return
    sleep 0.1
  done
  echo "cross_build_files: the holder never attached" >&2
  exit 1
}
# Runs a wmctl command, keeping its output in $out; a failure ends the test.
run() { out=$("$@" 2>&1) || { echo "failed: $*: $out" >&2; exit 1; }; }
type_of() { if [ $(($1 % 2)) = 1 ]; then echo INVOICE; else echo ORDER; fi; }

if [ "${1:-}" = inner ]; then # inner write|read ROOT WMCTL...: one side, own IPC namespace
  mode=$2 root=$3
  shift 3
  export GDDA_CONFIG=$root/gdda.conf
  if [ "$mode" = write ]; then
    hold "$@"
    for i in $(seq 0 $((n - 1))); do
      len=$((i == n - 1 ? 8192 : i * 347))
      { head -c $((len / 2)) /dev/urandom; head -c $((len - len / 2)) /dev/zero; } > "$root/data.$i"
      high=$([ $((i % 4)) = 3 ] && echo --high || true)
      run "$@" send PROCA PROCB "$(type_of "$i")" -f "$root/data.$i" $high
    done
    for i in 1 2; do # oldest first: the high-priority 3 and 7
      run "$@" recv PROCB --wait 1 -o "$root/got"
    done
    run "$@" retry "$(echo "$out" | sed -n 's/^received message \(0x[0-9A-Fa-f]*\):.*/\1/p')" --flags 5
  else
    for i in $(seq 0 $((n - 1))); do
      [ $((i % 4)) = 3 ] && continue
      run "$@" recv PROCB --wait 1 -o "$root/got"
      [[ $out == *"$(type_of "$i") from PROCA (101) to PROCB (102)"* ]] || { echo "message $i: $out" >&2; exit 1; }
      cmp "$root/got" "$root/data.$i"
    done
    run "$@" count --json
    [[ $out == *'"pending": 0,'* && $out == *'"retry": 1,'* ]] || { echo "$out" >&2; exit 1; }
    run "$@" recv PROCB --retry --wait 1 -o "$root/got"
    [[ $out == *"user flags 5"* ]] || { echo "retried: $out" >&2; exit 1; }
    cmp "$root/got" "$root/data.7"
  fi
  exit 0
fi

# peer: the other build's wmctl; own: this build's, started through emu ("" when native).
peer=$1 emu=$2 own=$3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# writer and reader wmctl command lines, split at blanks.
both_ways() {
  local root=$tmp/$1 writer=$2 reader=$3
  mkdir -p "$root/Dev/control/appconf" "$root/Dev/data/msgq" "$root/Dev/data/rmsgq"
  printf '[Global]\nLevel=Dev\nRoot=%s\n[Dev]\nWM_Timeout_Secs=5\n' "$root" > "$root/gdda.conf"
  printf 'NAME=ORDER,ID=1,DESC=O\nNAME=INVOICE,ID=2,DESC=I\n' > "$root/Dev/control/appconf/WorkMsg.ini"
  printf 'NAME=PROCA,ID=101,MSGID=Y,DESC=A\nNAME=PROCB,ID=102,MSGID=N,DESC=B\n' \
    > "$root/Dev/control/appconf/ProcessUID.ini"
  unshare --ipc "$0" inner write "$root" $writer
  local db=$root/Dev/data/msgq w r
  for slot in "" 3 7; do # every record; the data of those not delivered below
    w=$($writer dump "$db" ${slot:+--slot $slot})
    r=$($reader dump "$db" ${slot:+--slot $slot})
    [ "$w" = "$r" ] || { printf 'dump %s differs:\n%s\n--- the reader:\n%s\n' "$slot" "$w" "$r" >&2; exit 1; }
    [ -n "$slot" ] || [ "$(grep -c ': pending' <<< "$r") $(grep -c ': received' <<< "$r") $(grep -c ': retry' <<< "$r")" = "6 1 1" ] ||
      { echo "$r" >&2; exit 1; }
  done
  unshare --ipc "$0" inner read "$root" $reader
}
both_ways a "$peer" "$emu $own"
both_ways b "$emu $own" "$peer"
echo "files_cross_build: both directions ok"
