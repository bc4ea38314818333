#!/usr/bin/env bash
# Installs the build into a scratch prefix and builds a host against it twice:
# with find_package(kestrova) and with pkg-config.
set -euo pipefail
build=$1 src=$2 sample=$4
mkdir -p "$3"
tmp=$(mktemp -d "$3/install.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
cmake --install "$build" --prefix "$tmp/prefix" >/dev/null
cmake -S "$src/consumer" -B "$tmp/consumer" -G Ninja -DCMAKE_PREFIX_PATH="$tmp/prefix" >/dev/null
cmake --build "$tmp/consumer" >/dev/null
"$tmp/consumer/host" "$sample"
export PKG_CONFIG_PATH="$tmp/prefix/lib/pkgconfig"
cc -o "$tmp/host_pc" "$src/consumer/host.c" $(pkg-config --cflags --libs kestrova)
"$tmp/host_pc" "$sample"
