#!/bin/bash
# Builds ovani for release and prints how fast and how big it is: the daemon end to end beside announcers that do next
# to nothing, its handlers without the bus, its store beside plain SQLite, its memory and its size. Figures that stand
# beside each other come from the same run; nothing is judged. docs/performance.md tells what they mean.
#
# Everything runs in a simulated gateway's namespaces (tools/gateway), out of sight of the machine's own files and
# network, before all other work of the machine where that is allowed; on one processor, the road on all as well. TMPDIR
# (/var/tmp unless set) is where the stores lie, on a disk; OVANI_BUS=auto|system|bundled chooses the bus. Needs root,
# for namespaces and for installing what is missing (Debian 12).
#
#   bench/run.sh [--short]      --short makes do with fewer turns: a minute to see that all is well, no figures to keep
set -euo pipefail
(($# == 0)) || { echo "usage: $0, what may be chosen is said at its top" >&2 && exit 2; }
cd "$(dirname "$(realpath "$0")")/.."
short=() repetitions=5 min_time=0.3
case $* in
"") ;;
--short) short=(short) repetitions=2 min_time=0.05 ;;
*) echo "usage: bench/run.sh [--short]" >&2 && exit 2 ;;
esac

tools/install-packages.sh run test bench >&2
tools/arm-sysroot.sh build/arm-sysroot >&2
build=build/bench
cmake --preset release -B "$build" -DOVANI_TESTS=OFF -DOVANI_BUS="${OVANI_BUS:-auto}" >&2
cmake --build "$build" >&2
cmake --preset arm -DOVANI_TESTS=OFF -B build/bench-arm >&2
cmake --build build/bench-arm --target ovani >&2

work=$(mktemp -d "${TMPDIR:-/var/tmp}/ovani-bench.XXXXXX")
export TMPDIR=$work
gateway=(tools/gateway -s "$work/gateway")
trap '"${gateway[@]}" down 2>/dev/null || true; rm -rf "$work"' EXIT
# What else the machine does waits meanwhile, so that latencies are those of what is measured.
priority=(chrt --fifo 10)
"${priority[@]}" true 2>/dev/null || priority=()

# measure PROCESSORS PROGRAM...: on a gateway of its own that is silent.
measure() {
    local cpus=$1 quiet=() service
    shift
    for service in broker sysmgr daemon watcher dhcp; do
        quiet+=(--without "$service")
    done
    "${gateway[@]}" up --build "$build" --owner $$ "${quiet[@]}"
    taskset -c "$cpus" "${priority[@]}" "${gateway[@]}" exec "$@" 2>>"$work/errors" ||
        { tail "$work/errors" >&2 && return 1; }
    "${gateway[@]}" down
}

allowed=$(taskset -cp $$ | sed 's/.*: //')
one=${allowed##*[,-]}
echo "measuring, for some minutes" >&2
echo "$(date +%F), commit $(git rev-parse --short HEAD), $(nproc) processors, load $(cut -d' ' -f1 /proc/loadavg)," \
    "broker $(realpath --relative-to=. "$build/bin/ubusd")"
printf '\nON ONE PROCESSOR\n'
measure "$one" bench_road all "${short[@]}"
printf '\nON ALL PROCESSORS (%s)\n' "$allowed"
measure "$allowed" bench_road road "${short[@]}"
printf '\nWITHOUT A CLOCK\n'
measure "$one" bench_road instructions
measure "$one" bench_micro "--benchmark_repetitions=$repetitions" "--benchmark_min_time=$min_time" \
    --benchmark_format=csv >"$work/micro"
awk -F, '
    function heading(what, a, b) { printf "\n%-40s %9s %9s %9s\n", what, a, b, "ratio" }
    function row(what, a, b) { printf "  %-38s %9.2f %9.2f %9.2f\n", what, us[a], us[b], us[a] / us[b] }
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
    }' "$work/micro"
printf '\n%s\n' "size of the stripped daemon with store and bus, KB"
strip -o "$work/ovani" "$build/bin/ovani"
arm-linux-gnueabihf-strip -o "$work/ovani-arm" build/bench-arm/bin/ovani
printf '  %-38s %9d\n' "this machine's" $(($(stat -c %s "$work/ovani") / 1000)) \
    "32-bit ARM" $(($(stat -c %s "$work/ovani-arm") / 1000))
