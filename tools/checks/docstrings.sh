#!/usr/bin/env bash
# Every public name has a docstring: doxygen reads the public headers and complains of what has none.
set -u
log=$(mktemp)
trap 'rm -f "$log"' EXIT
doxygen docs/Doxyfile >/dev/null 2>"$log"
if [[ -s $log ]]; then
    sed "s#$PWD/##" "$log"
    exit 1
fi
