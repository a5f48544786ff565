# ./build.sh tidy [FILE...]: clang-tidy on the library's sources (or the named ones), against the linux preset.

command_tidy() {
    need_preset linux
    need clang-tidy-19 clang-tidy-19
    install_missing
    cmake --preset linux >/dev/null
    local files=("$@")
    ((${#files[@]})) || mapfile -t files < <(git ls-files 'src/VlmCore/*.cpp' ':!src/VlmCore/platform/windows/*')
    printf '%s\n' "${files[@]}" | xargs -P "$(nproc)" -n 1 clang-tidy-19 --quiet -p build/linux
}
