#!/bin/bash
set -euo pipefail

usage() {
    cat <<'USAGE'
usage: ./test.sh [PRESET]...
       ./test.sh fuzz --coverage

Proves ovani right: installs what is missing, builds, runs every test, and ends with ctest's summary.

  ./test.sh               unit and system tests of the release build and under the address and undefined-behaviour
                          sanitizers, the unit tests under the thread sanitizer (with clang) and as 32-bit ARM
                          programs, and each fuzz target for five seconds
  ./test.sh PRESET...     those of the named presets: dev, release, asan, tsan, arm, fuzz
  ./test.sh fuzz --coverage
                          how much of daemon and bus the corpus of each fuzz target reaches, and of each source

OVANI_BUS=auto|system|bundled chooses libubox and libubus; CTEST_ARGS holds further arguments for ctest.
USAGE
}

misuse() {
    echo "test.sh: $*" >&2
    exit 2
}

case ${1:-} in -h | --help) usage && exit 0 ;; esac
# Of each target counts what it is built of, of each source what any target reaches.
coverage() {
    local build=build/coverage target name inputs objects=() profiles=()
    tools/install-packages.sh run test coverage
    mkdir -p $build
    cmake --preset fuzz -B $build -DOVANI_SANITIZE= \
        -DCMAKE_CXX_FLAGS="-fprofile-instr-generate -fcoverage-mapping" >$build.log 2>&1 || { cat $build.log && exit 1; }
    cmake --build $build --target fuzz
    printf '\n%-34s %8s %8s %9s\n' "" inputs lines reached
    for target in "$build"/bin/fuzz_*; do
        name=${target##*/fuzz_}
        inputs=(fuzz/corpus/"$name"/*)
        LLVM_PROFILE_FILE=$build/$name.raw "$target" -runs=0 "fuzz/corpus/$name" 2>"$build/$name.log"
        llvm-profdata merge -o "$build/$name.profile" "$build/$name.raw"
        objects+=(-object "$target")
        profiles+=("$build/$name.profile")
        llvm-cov report "$target" -instr-profile="$build/$name.profile" ovani bus |
            awk -v name="$name" -v inputs=${#inputs[@]} \
                '$1 == "TOTAL" { printf "%-34s %8d %8d %9s\n", name, inputs, $8, $10 }'
    done
    llvm-profdata merge -o $build/all.profile "${profiles[@]}"
    llvm-cov report "${objects[@]:1}" -instr-profile=$build/all.profile ovani bus 2>/dev/null |
        awk '/^-/ { print ""; next } NR > 2 && NF > 9 { printf "%-34s %8s %8d %9s\n", $1, "", $8, $10 }'
}

if [[ $* == "fuzz --coverage" ]]; then
    cd "$(dirname "$(realpath "$0")")"
    coverage
    exit
fi
presets=("$@")
((${#presets[@]})) || presets=(release asan tsan arm fuzz)
for preset in "${presets[@]}"; do
    [[ $preset == @(dev|release|asan|tsan|arm|fuzz) ]] || misuse "no such preset: $preset (see ./test.sh --help)"
done
[[ ${OVANI_BUS:-auto} == @(auto|system|bundled) ]] || misuse "OVANI_BUS is auto, system or bundled, not $OVANI_BUS"
cd "$(dirname "$(realpath "$0")")"

packages=(run test)
[[ " ${presets[*]} " != *" release "* ]] || packages+=(bench)
tools/install-packages.sh "${packages[@]}"
[[ " ${presets[*]} " != *" arm "* ]] || tools/arm-sysroot.sh build/arm-sysroot

mkdir -p build
for preset in "${presets[@]}"; do
    echo "test.sh: building $preset"
    bus=()
    [[ $preset == arm || $preset == fuzz ]] || bus=(-DOVANI_BUS="${OVANI_BUS:-auto}")
    cmake --preset "$preset" "${bus[@]}" >"build/$preset.log" 2>&1 || { cat "build/$preset.log" && exit 1; }
    cmake --build --preset "$preset"
done

# One summary over all of them.
mkdir -p build/all
printf 'subdirs("../%s")\n' "${presets[@]}" >build/all/CTestTestfile.cmake
read -ra ctest_args <<<"${CTEST_ARGS:-}"
ctest --test-dir build/all --output-on-failure --no-tests=error -j "$(nproc)" "${ctest_args[@]}"
