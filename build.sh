#!/usr/bin/env bash
# shellcheck disable=SC1090
# The front door: installs what is missing, then calls CMake presets. `./build.sh` alone prints the commands.
set -euo pipefail
cd "$(dirname "$0")"

usage() {
    cat <<'TXT'
VlmCore: ./build.sh COMMAND

  demo [--native]      build the library and vlmhost, run it on real files, show its table and its log
                       (the Windows DLL under Wine; with --native the Linux library)
  test [PRESET...]     build and test; without a name every preset:
                       windows-x64 linux linux-asan linux-tsan linux-gcc
  build [PRESET...]    build only
  bench [--windows] [FILTER]
                       run the benchmarks natively (or as Windows programs under Wine) and print the ratios
  fuzz [SECONDS]       run every fuzz target that long (60)
  check                format, header hygiene, seam and documentation checks
  tidy [FILE...]       clang-tidy on the library's sources
  memlog FOLDER        a report of the memory event log in FOLDER (events.json, stacks.json), and files for other
                       viewers; also: memlog EVENTS STACKS [--out FOLDER]
  package [PRESET]     install the library below build/package/PRESET (windows-x64)
  clean                remove build/
TXT
}

say() { printf '\033[1m== %s\033[0m\n' "$*"; }

# need COMMAND-OR-FILE PACKAGE...: notes the packages when the command or file is missing.
missing=()
need() {
    local what=$1
    shift
    if [[ $what == /* ]]; then
        # shellcheck disable=SC2086
        compgen -G "$what" >/dev/null && return
    else
        command -v "$what" >/dev/null && return
    fi
    missing+=("$@")
}

install_missing() {
    ((${#missing[@]})) || return 0
    local root=()
    if [[ $(id -u) != 0 ]]; then
        command -v sudo >/dev/null || { echo "Missing packages (need root or sudo): ${missing[*]}" >&2; exit 1; }
        root=(sudo)
    fi
    command -v apt-get >/dev/null || { echo "Please install: ${missing[*]}" >&2; exit 1; }
    say "Installing: ${missing[*]}"
    "${root[@]}" apt-get update -q
    "${root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends "${missing[@]}"
    missing=()
}

need_common() {
    need cmake cmake
    need ninja ninja-build
    need ccache ccache
    need clang++-19 clang-19
    need lld-19 lld-19
    need llvm-windres-19 llvm-19
    need /usr/lib/*/libdw.so.1 libdw1
    need /usr/lib/llvm-19/lib/clang/19/lib/linux/libclang_rt.asan*x86_64* libclang-rt-19-dev
    need /usr/src/googletest/CMakeLists.txt googletest
    need python3 python3
    need /usr/share/mime/packages/freedesktop.org.xml shared-mime-info
    need /usr/share/xml/iso-codes/iso_639-3.xml iso-codes
}

need_preset() {
    need_common
    case $1 in
        windows-x64)
            need x86_64-w64-mingw32-g++-posix g++-mingw-w64-x86-64-posix
            need wine wine
            need /usr/lib/wine/wine64 wine64
            need Xvfb xvfb
            need xauth xauth
            need lldb-19 lldb-19
            ;;
        linux-gcc) need g++ g++ ;;
        linux)
            need /usr/lib/*/libbenchmark.* libbenchmark-dev
            need node nodejs
            need npm npm
            need chromium chromium
            need /usr/libexec/valgrind/dh_view.html valgrind
            ;;
    esac
}

configure_and_build() {
    local preset=$1
    shift
    export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=true
    say "$preset: configure"
    cmake --preset "$preset" "$@" >"build-$preset.log" 2>&1 || { cat "build-$preset.log"; exit 1; }
    rm -f "build-$preset.log"
    say "$preset: build"
    # shellcheck disable=SC2086
    cmake --build --preset "$preset" ${targets:+--target $targets}
}

# A kept Wine server and a ready prefix make every later start cheap.
start_wine() {
    export WINEPREFIX=$PWD/build/windows-x64/wineprefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree=,mshtml="
    mkdir -p "$WINEPREFIX"
    wineserver -p >/dev/null 2>&1 || true
    if [[ ! -e $WINEPREFIX/system.reg ]]; then
        say "Preparing Wine (once)"
        wine wineboot --init >/dev/null 2>&1 || true
        wineserver -p >/dev/null 2>&1 || true
    fi
    wine cmd /c exit >/dev/null 2>&1 </dev/null || true # its services start now and keep no test's pipe open
    trap 'wineserver -k >/dev/null 2>&1 || true' EXIT
}

command_build() {
    local presets=("$@")
    ((${#presets[@]})) || presets=(windows-x64 linux)
    for preset in "${presets[@]}"; do need_preset "$preset"; done
    install_missing
    for preset in "${presets[@]}"; do configure_and_build "$preset"; done
}

command_test() {
    local presets=("$@") failed=()
    ((${#presets[@]})) || presets=(linux linux-asan linux-tsan linux-gcc windows-x64)
    for preset in "${presets[@]}"; do need_preset "$preset"; done
    install_missing
    for preset in "${presets[@]}"; do
        configure_and_build "$preset"
        if [[ $preset == windows-x64 ]]; then
            start_wine
            say "$preset: test (Wine, with a display)"
            xvfb-run -a ctest --preset "$preset" || failed+=("$preset")
        else
            say "$preset: test"
            ctest --preset "$preset" || failed+=("$preset")
        fi
    done
    if ((${#failed[@]})); then
        echo "Tests failed: ${failed[*]}" >&2
        exit 1
    fi
    say "All tests passed: ${presets[*]}"
}

case ${1:-} in
    build | test) command=command_$1; shift; "$command" "$@" ;;
    demo | bench | fuzz | check | tidy | memlog | package) name=$1; shift; source "tools/build/$name.sh"; "command_$name" "$@" ;;
    clean) rm -rf build ;;
    "" | help | -h | --help) usage ;;
    *) echo "Unknown command: $1" >&2; usage >&2; exit 2 ;;
esac
