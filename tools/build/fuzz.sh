# ./build.sh fuzz [SECONDS]: runs every fuzz target that long, under the address and undefined-behaviour sanitizers.

command_fuzz() {
    local seconds=${1:-60} target name
    need_preset linux-asan
    install_missing
    configure_and_build linux-asan
    for target in build/linux-asan/bin/*_fuzz; do
        name=$(basename "$target")
        say "$name: $seconds s"
        mkdir -p "build/fuzz/$name"
        "$target" -max_total_time="$seconds" -print_final_stats=1 -artifact_prefix="build/fuzz/$name-" \
            "build/fuzz/$name" "tests/fuzz/corpus/${name%_fuzz}" 2>&1 | tail -n 12
    done
}
