#!/bin/bash
# Installs the Debian packages that are missing, by group:
#   run    what building and running a simulated gateway takes
#   test   what the tests take beyond that
#   bench  what the benchmarks take beyond run
#   coverage  what test.sh fuzz --coverage takes beyond run and test
#   check  what tools/check takes beyond them
# Without anything missing it asks no package server.
set -euo pipefail

declare -A groups=(
    [run]="g++ cmake ninja-build nlohmann-json3-dev libsqlite3-dev libmnl-dev libcli11-dev
           libncurses-dev libsmartcols-dev
           iproute2 net-tools util-linux mawk udhcpc dnsmasq-base"
    [test]="googletest python3 dpkg-dev file tmux
            g++-arm-linux-gnueabihf qemu-user
            clang libclang-rt-14-dev"
    [bench]="libbenchmark-dev valgrind"
    [coverage]="llvm"
    [check]="clang clang-format clang-tidy shellcheck"
)

(($#)) || set -- run
missing=()
for group in "$@"; do
    [[ -n ${groups[$group]:-} ]] || {
        echo "$0: no such group: $group (there are ${!groups[*]})" >&2
        exit 2
    }
    for package in ${groups[$group]}; do
        [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] || missing+=("$package")
    done
done
((${#missing[@]})) || exit 0

[[ $(id -u) == 0 ]] || {
    echo "$0: only root can install packages; missing: ${missing[*]}" >&2
    exit 1
}
echo "installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
