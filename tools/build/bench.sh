# ./build.sh bench [FILTER]: runs the benchmarks natively, each beside its peers in one run, and prints the ratios.

command_bench() {
    local filter=${1:-} program name
    need_preset linux
    need python3 python3
    while read -r library package; do need "$library" "$package"; done <tools/bench/peers.txt
    install_missing
    configure_and_build linux -DVLMCORE_BUILD_BENCHMARKS=ON
    mkdir -p build/bench
    for program in build/linux/bin/*_bench; do
        name=$(basename "$program")
        [[ $name == *$filter* ]] || continue
        say "$name"
        "$program" --benchmark_repetitions="${VLMCORE_BENCH_REPETITIONS:-5}" --benchmark_report_aggregates_only=true \
            --benchmark_enable_random_interleaving=true --benchmark_out="build/bench/$name.json" \
            --benchmark_out_format=json >"build/bench/$name.txt" 2>&1 || { cat "build/bench/$name.txt"; exit 1; }
        python3 tools/bench/ratios.py "build/bench/$name.json"
    done
}
