#!/usr/bin/env bash
# check_dump.sh WINE CRASH_TESTS_EXE OBJ2YAML [LLDB]: lets children crash in every way that leaves a dump here, and reads
# the dumps back: exception, thread and modules with obj2yaml, the stack with lldb.
set -euo pipefail
wine=$1 program=$2 reader=$3 debugger=${4:-}
folder=$(dirname "$program")
kept=$(mktemp -d "$folder/dumps.XXXXXX")
trap 'rm -rf "$kept"' EXIT

fail() { echo "FAILED: $*" >&2; exit 1; }

# One child, one dump. Dumps are named by the second, so each is put away before the next.
crash() {
    local kind=$1 output dump
    output=$("$wine" "$program" --vlmcore-child=LeavesADump "$kind" </dev/null 2>/dev/null | tr -d '\r') || true
    dump=$(sed -n 's/^1: Wrote minidump .*[\\]//p' <<<"$output")
    [[ -n $dump ]] || fail "$kind: no dump in: $output"
    sed -n 's/^thread //p' <<<"$output" >"$kept/$kind.thread"
    mv "$folder/$dump" "$kept/$kind.dmp"
}

check_records() {
    local kind=$1 code=$2 yaml thread
    thread=$(<"$kept/$kind.thread")
    yaml=$("$reader" "$kept/$kind.dmp") || fail "$kind: the dump cannot be read"
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

# The debugger starts slowly: one run prints the stacks of all dumps, each behind the command that opened it.
print_stacks() {
    local commands=() kind
    for kind in "$@"; do
        commands+=(-o "target create -c '$kept/$kind.dmp'" -o "target symbols add '${program%.exe}.pdb'" -o "thread backtrace")
    done
    "$debugger" --no-lldbinit --batch "${commands[@]}" 2>/dev/null
}

# check_stack KIND CODE FUNCTION...: the thread that is shown crashed with CODE; the FUNCTIONs are its innermost frames.
check_stack() {
    local kind=$1 code=$2 stack frame=0 function
    shift 2
    stack=$(awk -v dump="/$kind.dmp'" '/^\(lldb\) target create/ { mine = index($0, dump) } mine' "$kept/stacks")
    grep -q "stop reason = Exception 0x${code,,} " <<<"$stack" || fail "$kind: lldb sees another exception: $stack"
    for function in "$@"; do
        grep -q "frame #$frame: .*crash_tests.exe\`$function.* at crash_tests.cpp:[0-9]" <<<"$stack" ||
            fail "$kind: frame $frame is not $function: $stack"
        frame=$((frame + 1))
    done
    echo "$kind: $* on the stack"
}

# Each way to crash, its code, and the functions that the stack begins with. A stack overflow is not here: Wine ends the
# thread before anybody can report it.
ways=(
    "WriteToNull C0000005 WriteToNull"
    "ReadFromNowhere C0000005 ReadFromNowhere"
    "DivideByZero C0000094 DivideByZero"
    "ExecuteNonsense C000001D ExecuteNonsense"
    "ExecuteSystemInstruction C0000096 ExecuteSystemInstruction"
    "BreakIntoDebugger 80000003 BreakIntoDebugger"
    "CorruptHeapAndCrash C0000005 WriteToNull CorruptHeapAndCrash"
)
kinds=()
for way in "${ways[@]}"; do
    read -r kind code functions <<<"$way"
    crash "$kind"
    check_records "$kind" "$code"
    kinds+=("$kind")
done

# A disk that takes no more than 64 KB: the log says that there is no dump, and none misleads anybody.
check_full_disk() {
    local output dump
    output=$(trap '' XFSZ && ulimit -f 64 &&
        "$wine" "$program" --vlmcore-child=LeavesADump WriteToNull </dev/null 2>/dev/null | tr -d '\r') || true
    dump=$(sed -n 's/^2: Failed to write minidump .*[\\]//p' <<<"$output")
    [[ -n $dump ]] || fail "full disk: not in the log: $output"
    [[ ! -e $folder/$dump ]] || fail "full disk: half a dump is left"
    echo "full disk: no dump, and the log says so"
}
check_full_disk

[[ -n $debugger ]] || { echo "no lldb: stacks not checked"; exit 0; }
print_stacks "${kinds[@]}" >"$kept/stacks"
for way in "${ways[@]}"; do
    read -r kind code functions <<<"$way"
    # shellcheck disable=SC2086
    check_stack "$kind" "$code" $functions VlmCoreChild_LeavesADump
done
