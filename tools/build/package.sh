# ./build.sh package [PRESET]: installs the library below build/package/PRESET, as hosts take it.

command_package() {
    local preset=${1:-windows-x64}
    need_preset "$preset"
    install_missing
    configure_and_build "$preset"
    rm -rf "build/package/$preset"
    cmake --install "build/$preset" --prefix "build/package/$preset"
    say "Installed below build/package/$preset"
}
