#!/bin/bash
# Builds ovani for release and prints, as one table, how fast and how big it is: the daemon end to end beside
# subscribers that do next to nothing, its handlers without the bus, its store beside plain SQLite, its memory and its
# size. Figures that stand beside each other come from the same run; nothing is judged.
#
# TMPDIR (/var/tmp unless set) is where the stores lie; OVANI_BUS=auto|system|bundled chooses the bus; BENCH_CPUS are the
# processors for everything that is measured, as taskset numbers them. With more than the one it is unless set, figures by
# the clock hang on how long processors take to wake each other. Needs root, for a network namespace with the gateway's
# interfaces and for installing what is missing (Debian 12).
set -euo pipefail
(($# == 0)) || { echo "usage: $0, what may be chosen is said at its top" >&2 && exit 2; }
cd "$(dirname "$(realpath "$0")")/.."

tools/install-packages.sh run bench >&2
build=build/bench
cmake --preset release -B "$build" -DOVANI_TESTS=OFF -DOVANI_TOOLS=OFF -DOVANI_BUS="${OVANI_BUS:-auto}" >&2
cmake --build "$build" >&2

TMPDIR=$(mktemp -d "${TMPDIR:-/var/tmp}/ovani-bench.XXXXXX")
export TMPDIR
trap 'rm -rf "$TMPDIR"' EXIT

cpus=${BENCH_CPUS:-$(taskset -cp $$ | sed 's/.*[ ,-]//')}
echo "measuring, for some minutes" >&2
# shellcheck disable=SC2016 # the inner shell expands them
taskset -c "$cpus" unshare --net bash -euo pipefail -c '
    for port in 0 1 2 3; do ip link add "eth$port" type veth peer name "cable$port"; done
    "$0/bench_road" >"$TMPDIR/road"
    "$0/bench_micro" --benchmark_repetitions=5 --benchmark_format=csv >"$TMPDIR/micro" 2>"$TMPDIR/micro.log"
' "$build/bin"
strip -o "$TMPDIR/ovani" "$build/bin/ovani"

echo "processors $cpus, load $(cut -d' ' -f1 /proc/loadavg), broker $(realpath --relative-to=. "$build/bin/ubusd")"
cat "$TMPDIR/road"
awk -F, '
    function heading(what, a, b) { printf "\n%-42s %9s %9s %9s\n", what, a, b, "ratio" }
    function row(what, a, b) { printf "  %-40s %9.2f %9.2f %9.2f\n", what, us[a], us[b], us[a] / us[b] }
    match($0, /_median",/) {
        name = substr($0, 2, RSTART - 2)
        split(substr($0, RSTART + RLENGTH), field, ",")
        us[name] = field[3] / 1000 # processor time
        if (name ~ /\/254$/) handlers[++count] = substr(name, 1, length(name) - 4)
    }
    END {
        heading("a handler alone, us of processor time", "254 hosts", "1 host")
        for (i = 1; i <= count; i++) row(handlers[i], handlers[i] "/254", handlers[i] "/1")
        heading("the store, us of processor time", "store", "sqlite")
        row("14 parameters written, all changed", "store write/14", "sqlite write/14")
        row("14 parameters written, one changed", "store write/1", "sqlite write/1")
        row("14 parameters written, none changed", "store write/0", "sqlite write/0")
        row("4 parameters read", "store read", "sqlite read")
    }' "$TMPDIR/micro"
printf '\n%-42s\n  %-40s %9d\n' "size of the daemon, KiB" "stripped program" \
    $((($(stat -c %s "$TMPDIR/ovani") + 1023) / 1024))
