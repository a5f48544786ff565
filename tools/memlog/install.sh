#!/usr/bin/env bash
# Installs the libraries of the viewer beside it, as the lock file names them; with "test" those of its tests, too.
# Does nothing, and needs no network, when they are there.
set -euo pipefail
cd "$(dirname "$0")"

is_fresh() {
    [[ node_modules/.package-lock.json -nt package-lock.json ]] && [[ ${1:-} != test || -d node_modules/puppeteer-core ]]
}

is_fresh "${1:-}" && exit 0
options=(--loglevel=error --prefer-offline)
[[ ${1:-} == test ]] || options+=(--omit=dev)
echo "Installing the viewer's libraries from npm"
npm ci "${options[@]}"
