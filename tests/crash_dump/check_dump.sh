#!/usr/bin/env bash
# check_dump.sh WINE CRASH_TESTS_EXE OBJ2YAML: lets a child crash in two ways and reads the dump it leaves.
set -euo pipefail
wine=$1 program=$2 reader=$3

fail() { echo "FAILED: $*" >&2; exit 1; }

check() {
    local kind=$1 code=$2
    local output dump yaml thread
    output=$("$wine" "$program" --vlmcore-child=LeavesADump "$kind" </dev/null 2>/dev/null | tr -d '\r') || true
    thread=$(sed -n 's/^thread //p' <<<"$output")
    dump=$(sed -n 's/^1 Wrote minidump .*[\\]//p' <<<"$output")
    [[ -n $dump ]] || fail "$kind: no dump in: $output"
    dump=$(dirname "$program")/$dump
    yaml=$("$reader" "$dump") || fail "$kind: the dump cannot be read"
    rm -f "$dump"
    yaml=${yaml^^}
    grep -q "EXCEPTION CODE: *0X0*$code" <<<"$yaml" || fail "$kind: wrong exception code"
    # The thread that crashed, in the exception stream and again in the thread list.
    [[ $(grep -c "THREAD ID: *0X0*${thread^^}\$" <<<"$yaml") -ge 2 ]] || fail "$kind: thread $thread is not there twice"
    grep -q "MODULE NAME: .*CRASH_TESTS.EXE" <<<"$yaml" || fail "$kind: the program is not among the modules"
    grep -q "MODULE NAME: .*VLMCORE.DLL" <<<"$yaml" || fail "$kind: the library is not among the modules"
    # The failing instruction lies in the program, which is loaded where it was linked.
    grep -q "EXCEPTION ADDRESS: *0X0*1400[0-9A-F]*" <<<"$yaml" || fail "$kind: wrong address"
    echo "$kind: $code in thread $thread"
}

check WriteToNull C0000005
check DivideByZero C0000094
