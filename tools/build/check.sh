# ./build.sh check: format, seam, documents; what a compiler does not see.

command_check() {
    need_common
    need clang-format-19 clang-format-19
    need doxygen doxygen
    need python3 python3
    install_missing
    local failed=0
    say "check: format"
    git ls-files '*.h' '*.cpp' | xargs clang-format-19 --dry-run --Werror || failed=1
    # The formatter leaves comments as they are.
    if LC_ALL=C.UTF-8 git grep -nE '^.{121,}$' -- '*.h' '*.cpp'; then
        echo "Lines of more than 120 columns" >&2
        failed=1
    fi
    say "check: seam"
    tools/checks/seam.sh || failed=1
    say "check: documents"
    python3 tools/checks/documents.py || failed=1
    say "check: docstrings"
    python3 tools/checks/docstrings.py || failed=1
    ((failed == 0)) || { echo "Checks failed" >&2; exit 1; }
    say "All checks passed"
}
