# ./build.sh memlog FOLDER | EVENTS STACKS [--out FOLDER]: a report of the memory event log, and files for other viewers.

command_memlog() {
    need node nodejs
    need npm npm
    install_missing
    tools/memlog/install.sh
    node tools/memlog/memlog.mjs "$@"
}
