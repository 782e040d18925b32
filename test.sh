#!/bin/bash
set -euo pipefail

usage() {
    cat <<'USAGE'
usage: ./test.sh [PRESET]...

Proves ovani right: installs what is missing, builds, runs every test, and ends with ctest's summary.

  ./test.sh               unit and system tests of the release build and under the address and undefined-behaviour
                          sanitizers, the unit tests under the thread sanitizer (with clang) and as 32-bit ARM
                          programs, and each fuzz target for five seconds
  ./test.sh PRESET...     those of the named presets: dev, release, asan, tsan, arm, fuzz

OVANI_BUS=auto|system|bundled chooses libubox and libubus; CTEST_ARGS holds further arguments for ctest.
USAGE
}

misuse() {
    echo "test.sh: $*" >&2
    exit 2
}

case ${1:-} in -h | --help) usage && exit 0 ;; esac
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
