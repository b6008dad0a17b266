#!/usr/bin/env bash
# Mutation check of the test suite: plants one fault at a time from
# scripts/mutants.txt, rebuilds the native variant in its own build tree,
# runs the tests and reports each fault as killed (some test failed) or
# SURVIVED (every test passed). A tool for developers; CI does not run it.
#
#   scripts/mutants.sh                 every fault
#   scripts/mutants.sh NAME...         only these (names as in mutants.txt)
#   scripts/mutants.sh --list          the names and what each breaks
#   scripts/mutants.sh --check-list    every fault's text occurs once, nothing built
#
# Environment: MUTANTS_BUILD (build tree, default build-mutants),
# MUTANTS_JOBS (build jobs, default 2), MUTANTS_TEST_JOBS (tests run at
# once, default MUTANTS_JOBS; most tests sleep more than they compute, so
# more than the cores is fine), MUTANTS_CTEST_ARGS (extra ctest arguments, e.g.
# "-R receive" to run a subset of the tests), MUTANTS_TIMEOUT (seconds per
# test, default 120: a fault that makes a test hang counts as killed).
#
# A run stays short: the library links with CMAKE_LINK_DEPENDS_NO_SHARED, so
# a fault in the library relinks no test, and ctest stops at the first
# failing test. The source file is restored after each fault, also when the
# run is interrupted; the build tree then holds the last fault's objects and
# rebuilds on its next use. Results: <build>/mutants/summary.txt, and one log
# per fault beside it.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
LIST="$ROOT/scripts/mutants.txt"
BUILD=${MUTANTS_BUILD:-$ROOT/build-mutants}
JOBS=${MUTANTS_JOBS:-2}
TEST_JOBS=${MUTANTS_TEST_JOBS:-$JOBS}
TIMEOUT=${MUTANTS_TIMEOUT:-120}
read -r -a CTEST_EXTRA <<<"${MUTANTS_CTEST_ARGS:-}"

# The parser: prints one line per fault, "name<TAB>file<TAB>why", for the
# names asked (all when none); with --apply NAME it plants that fault in
# place, with --check it verifies every record. Fails loudly on a record
# whose text is not found exactly once, so a stale list is noticed.
parse() {
    python3 - "$LIST" "$ROOT" "$@" <<'PY'
import sys
path, root, mode, *names = sys.argv[1:]
def unescape(t):
    out, i = [], 0
    while i < len(t):
        if t[i] == '\\' and i + 1 < len(t):
            out.append('\n' if t[i + 1] == 'n' else t[i + 1]); i += 2
        else:
            out.append(t[i]); i += 1
    return ''.join(out)
recs, cur = [], None
for line in open(path, encoding='utf-8'):
    line = line.rstrip('\n')
    if line.startswith('#') or not line.strip():
        continue
    key, _, val = line.partition(' ')
    if key == '==':
        cur = {'name': val.strip()}; recs.append(cur)
    elif cur is not None and key in ('file', 'from', 'to', 'why'):
        cur[key] = val
    else:
        sys.exit(f'mutants.txt: cannot read: {line}')
bad = False
seen = set()
for r in recs:
    if r['name'] in seen or not all(k in r for k in ('file', 'from', 'to', 'why')):
        sys.exit(f"mutants.txt: record {r['name']} is repeated or incomplete")
    seen.add(r['name'])
unknown = [n for n in names if n not in seen]
if unknown:
    sys.exit('mutants.txt: no fault named ' + ', '.join(unknown))
chosen = [r for r in recs if not names or r['name'] in names]
for r in chosen:
    text = open(f"{root}/{r['file']}", encoding='utf-8').read()
    n = text.count(unescape(r['from']))
    if n != 1:
        print(f"mutants.txt: {r['name']}: text found {n} times in {r['file']}", file=sys.stderr)
        bad = True
        continue
    if mode == 'apply':
        with open(f"{root}/{r['file']}", 'w', encoding='utf-8') as f:
            f.write(text.replace(unescape(r['from']), unescape(r['to'])))
    elif mode == 'list':
        print(f"{r['name']}\t{r['file']}\t{r['why']}")
sys.exit(1 if bad else 0)
PY
}

case "${1:-}" in
--list) parse list | column -t -s $'\t'; exit 0 ;;
--check-list) parse check && echo "mutants.txt: every fault applies"; exit $? ;;
-h|--help) sed -n '2,22p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
esac

mapfile -t FAULTS < <(parse list "$@")
[ ${#FAULTS[@]} -gt 0 ] || { echo "mutants.sh: no fault to plant" >&2; exit 2; }

OUT="$BUILD/mutants"
mkdir -p "$OUT"
SAVED="$OUT/original"
CURRENT=""
restore() {
    # A plain copy, so the restored file is newer than the fault's objects.
    if [ -n "$CURRENT" ]; then
        cat "$SAVED" >"$ROOT/$CURRENT"
        CURRENT=""
    fi
}
trap 'restore' EXIT
trap 'restore; echo "mutants.sh: interrupted; source restored" >&2; exit 130' INT TERM

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_LINK_DEPENDS_NO_SHARED=ON >"$OUT/configure.log" 2>&1 ||
    { echo "mutants.sh: configure failed, see $OUT/configure.log" >&2; exit 1; }
echo "mutants.sh: building the unchanged tree in $BUILD"
cmake --build "$BUILD" -j "$JOBS" >"$OUT/build.log" 2>&1 ||
    { echo "mutants.sh: the unchanged tree does not build, see $OUT/build.log" >&2; exit 1; }

# The test that killed a fault last time runs first, alone: a repeated run
# then costs one test per fault that is still killed.
KILLERS="$OUT/killers.txt"
touch "$KILLERS"
killer_in() {
    grep -m1 -E '^\s*[0-9]+ - .+ \((Failed|Timeout|SEGFAULT|Subprocess aborted|Exception|Child aborted)\)' \
        "$1" | sed -E 's/^\s*[0-9]+ - //; s/ \([^)]*\)$//' || true
}
run_tests() {
    local last
    last=$(awk -F'\t' -v n="$1" '$1 == n { t = $2 } END { print t }' "$KILLERS")
    if [ -n "$last" ] && ctest --test-dir "$BUILD" -N -R "^${last}\$" | grep -q 'Total Tests: 1'; then
        ctest --test-dir "$BUILD" --timeout "$TIMEOUT" -R "^${last}\$" || return 1
    fi
    ctest --test-dir "$BUILD" -j "$TEST_JOBS" --stop-on-failure --timeout "$TIMEOUT" \
        ${CTEST_EXTRA[@]+"${CTEST_EXTRA[@]}"}
}

: >"$OUT/summary.txt"
killed=0 survived=0 broken=0
for line in "${FAULTS[@]}"; do
    IFS=$'\t' read -r name file why <<<"$line"
    log="$OUT/$name.log"
    start=$SECONDS
    cp "$ROOT/$file" "$SAVED"
    CURRENT=$file
    parse apply "$name"
    if ! cmake --build "$BUILD" -j "$JOBS" >"$log" 2>&1; then
        verdict="NOBUILD"
        broken=$((broken + 1))
    elif ! run_tests "$name" >>"$log" 2>&1; then
        verdict="killed"
        killed=$((killed + 1))
    else
        verdict="SURVIVED"
        survived=$((survived + 1))
    fi
    restore
    by=$(killer_in "$log")
    [ -z "$by" ] || printf '%s\t%s\n' "$name" "$by" >>"$KILLERS"
    printf '%-28s %-8s %4ss  %s\n' "$name" "$verdict" $((SECONDS - start)) \
        "${by:-$why}" | tee -a "$OUT/summary.txt"
done
printf 'faults %d: killed %d, survived %d, did not build %d\n' ${#FAULTS[@]} \
    "$killed" "$survived" "$broken" | tee -a "$OUT/summary.txt"
[ "$survived" -eq 0 ] && [ "$broken" -eq 0 ]
