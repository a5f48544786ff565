# ./build.sh bench [--windows] [FILTER]: runs the benchmarks, each beside its peers in one run, and prints the ratios.
# Natively; with --windows as Windows programs with the DLL, under Wine.

# Google Benchmark for Windows is built from Debian's source package, which apt fetches without touching the system's
# own lists.
fetch_benchmark_source() {
    local folder=build/benchmark-source
    [[ -e $folder/CMakeLists.txt ]] && return
    local apt=$PWD/build/benchmark-apt suite archive
    # shellcheck disable=SC1091
    suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
    # Where the system's own packages come from.
    archive=$(apt-get indextargets --format '$(CODENAME) $(REPO_URI)' | awk -v suite="$suite" '$1 == suite { print $2; exit }')
    [[ $archive ]] || { echo "apt knows no archive of $suite" >&2; exit 1; }
    say "Fetching the sources of Google Benchmark (Debian source package benchmark, $suite)"
    mkdir -p "$apt/lists/partial"
    cat >"$apt/source.sources" <<TXT
Types: deb-src
URIs: $archive
Suites: $suite
Components: main
Signed-By: /usr/share/keyrings/debian-archive-keyring.gpg
TXT
    local options=(-q -o "Dir::Etc::sourcelist=$apt/source.sources" -o Dir::Etc::sourceparts=/dev/null
        -o "Dir::State::lists=$apt/lists")
    apt-get "${options[@]}" update
    (cd "$apt" && apt-get "${options[@]}" source --download-only benchmark)
    mkdir -p "$folder"
    tar -xzf "$apt"/benchmark_*.orig.tar.gz -C "$folder" --strip-components=1
}

command_bench() {
    local preset=linux run=() options=(-DVLMCORE_BUILD_BENCHMARKS=ON) suffix="" program name
    if [[ ${1:-} == --windows ]]; then
        preset=windows-x64
        suffix=.exe
        shift
    fi
    local filter=${1:-}
    need_preset "$preset"
    need python3 python3
    if [[ $preset == linux ]]; then
        while read -r library package; do need "$library" "$package"; done <tools/bench/peers.txt
    fi
    install_missing
    local results=build/bench
    if [[ $preset == windows-x64 ]]; then
        fetch_benchmark_source
        options+=("-DVLMCORE_BENCHMARK_SOURCE=$PWD/build/benchmark-source")
        results=build/bench-windows
        start_wine
        run=(wine)
    fi
    local names=()
    for name in benchmarks/*_bench.cpp; do
        name=$(basename "$name" .cpp)
        [[ $name != *$filter* ]] || names+=("$name")
    done
    if ((${#names[@]} == 0)); then
        echo "No benchmark's name has \"$filter\" in it; there are:" benchmarks/*_bench.cpp >&2
        exit 2
    fi
    targets="${names[*]}" configure_and_build "$preset" "${options[@]}"
    mkdir -p "$results"
    for name in "${names[@]}"; do
        program=build/$preset/bin/$name$suffix
        say "$name"
        "${run[@]}" "$program" --benchmark_repetitions="${VLMCORE_BENCH_REPETITIONS:-5}" \
            --benchmark_min_time="${VLMCORE_BENCH_SECONDS:-0.5}" \
            --benchmark_report_aggregates_only=true --benchmark_enable_random_interleaving=true \
            --benchmark_out="$results/$name.json" --benchmark_out_format=json </dev/null >"$results/$name.txt" 2>&1 ||
            { cat "$results/$name.txt"; exit 1; }
        python3 tools/bench/ratios.py "$results/$name.json"
    done
}
