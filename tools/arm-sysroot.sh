#!/bin/bash
# Fills a directory with what the 32-bit ARM build links against and Debian's cross compiler does not bring: SQLite,
# and the JSON headers. The packages are fetched by an apt of its own, so that the machine's package lists and
# architectures stay as they are.
set -euo pipefail

[[ $# == 1 && -n $1 && $1 != -* ]] || {
    echo "usage: $0 DIRECTORY" >&2
    exit 2
}
root=$1
packages=(libsqlite3-0 libsqlite3-dev nlohmann-json3-dev)

[[ -e $root/complete ]] && exit 0
rm -rf "$root"
mkdir -p "$root"/apt/{lists,cache}/partial
root=$(realpath "$root")
options=(-qq -o APT::Architecture=armhf -o APT::Architectures=armhf -o APT::Sandbox::User=root
    -o "Dir::State::lists=$root/apt/lists" -o "Dir::Cache=$root/apt/cache" -o Dir::State::status=/dev/null)

# Some list may be unreachable without any of the packages missing.
apt-get "${options[@]}" update || true
(cd "$root/apt" && apt-get "${options[@]}" download "${packages[@]}")
for package in "$root"/apt/*.deb; do
    dpkg-deb -x "$package" "$root"
done
rm -rf "$root/apt"
touch "$root/complete"
