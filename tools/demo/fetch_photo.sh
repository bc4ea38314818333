#!/usr/bin/env bash
# Extracts NASA's public-domain portrait of astronaut Eileen Collins (a work
# of the US government) from Debian's python3-skimage package, which ships it
# as data/astronaut.png. Only that file is taken: the package is downloaded,
# not installed, and none of its dependencies come with it.
#
#   tools/demo/fetch_photo.sh OUT.png
set -euo pipefail
out=${1:?usage: fetch_photo.sh OUT.png}
[ -s "$out" ] && exit 0
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
cd "$tmp"
if ! apt-get download python3-skimage >/dev/null 2>&1; then
  sudo=""
  [ "$(id -u)" = 0 ] || sudo=sudo
  $sudo apt-get update -qq </dev/null
  apt-get download python3-skimage >/dev/null
fi
dpkg-deb --fsys-tarfile python3-skimage_*.deb |
  tar -x --wildcards './usr/lib/python3/dist-packages/skimage/data/astronaut.png'
mkdir -p "$(dirname "$out")"
cp ./usr/lib/python3/dist-packages/skimage/data/astronaut.png "$out.part"
mv "$out.part" "$out"
