# ./build.sh demo [--native]: builds the library and vlmhost, runs it on real files, shows its table and its log.

# What the demo indexes: this project's own documents, texts and XML that Debian installs, samples in every encoding, and
# the samples embedded in the program.
demo_inputs() {
    printf '%s\n' README.md docs examples/host/samples
    local text
    for text in /usr/share/common-licenses/{GPL-3,Apache-2.0,Artistic} /usr/share/xml/iso-codes/iso_{4217,639-5}.xml; do
        [[ ! -e $text ]] || printf '%s\n' "$text"
    done
    printf ':\n'
}

command_demo() {
    local preset=windows-x64 runner=(wine)
    case ${1:-} in
        --native) preset=linux runner=() ;;
        "") ;;
        *) echo "demo takes --native or nothing" >&2; exit 2 ;;
    esac
    need_preset "$preset"
    need /usr/share/xml/iso-codes/iso_4217.xml iso-codes
    install_missing
    targets="vlmhost" configure_and_build "$preset" -DVLMCORE_BUILD_TESTS=ON

    local program=build/$preset/bin/vlmhost log=build/$preset/vlmhost-demo.log inputs
    [[ $preset == windows-x64 ]] && { program+=.exe; start_wine; }
    mapfile -t inputs < <(demo_inputs)
    rm -f "$log"
    say "vlmhost on ${#inputs[@]} files and folders"
    "${runner[@]}" "$program" --log "$log" "${inputs[@]}"
    say "the first and the last lines of its log ($log)"
    head -n 4 "$log"
    echo ...
    tail -n 3 "$log"
}
