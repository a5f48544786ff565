#!/usr/bin/env bash
# No system header and no platform conditional outside src/VlmCore/platform; every room has its pair.
set -u
failed=0
report() { echo "$1"; failed=1; }

while IFS= read -r line; do report "platform conditional outside the seam: $line"; done < <(
    git grep -nE '^\s*#\s*(if|ifdef|ifndef|elif).*\b(_WIN32|_WIN64|__linux__|__unix__|__MINGW32__)\b' -- \
        src include ':!src/VlmCore/platform/**' ':!include/vlmcore/export.h')
while IFS= read -r line; do report "system header outside the seam: $line"; done < <(
    git grep -nE '^\s*#\s*include\s*<(windows|winsock2|shellapi|shlobj|dbghelp|process|io|unistd|dlfcn|fcntl|pthread|signal|execinfo|syslog|sched|sys/[a-z]+|linux/[a-z]+)\.h>' -- \
        src include ':!src/VlmCore/platform/**')
for room in windows:posix posix:windows; do
    for file in src/VlmCore/platform/"${room%:*}"/*.cpp; do
        pair=src/VlmCore/platform/${room#*:}/$(basename "$file")
        [[ -e $pair ]] || report "$file has no pair $pair"
    done
done
exit $failed
