#!/usr/bin/env bash
# Sets up everything the engine needs on a Debian 12 machine and builds it.
# Idempotent and non-interactive: installs only what is missing.
#
#   scripts/setup.sh              release build in build/
#   scripts/setup.sh --sanitize   AddressSanitizer + UBSan build in build-asan/
#   scripts/setup.sh --tsan       ThreadSanitizer build of the threaded code in build-tsan/
set -euo pipefail
cd "$(dirname "$0")/.."

build=build
cmake_args=(-DCMAKE_BUILD_TYPE=Release)
if [ "${1:-}" = "--sanitize" ]; then
  build=build-asan
  cmake_args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DLE_SANITIZE=ON -DLE_BUILD_BENCH=OFF)
elif [ "${1:-}" = "--tsan" ]; then
  build=build-tsan
  cmake_args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DLE_TSAN=ON -DLE_BUILD_BENCH=OFF)
fi

# Debian packages: tools by command, libraries by package.
need=()
command -v g++ >/dev/null || need+=(g++)
command -v cmake >/dev/null || need+=(cmake)
command -v ninja >/dev/null || need+=(ninja-build)
command -v pkg-config >/dev/null || need+=(pkg-config)
command -v npm >/dev/null || need+=(nodejs npm)
[ -x /usr/bin/python3 ] || need+=(python3)
# ffmpeg writes the test suite's movies and the benchmarks' reference movie.
command -v ffmpeg >/dev/null || need+=(ffmpeg)
# python3-numpy, python3-onnx and python3-pil serve the test-data generator;
# libonnx-testdata holds real ONNX models that the graph reader is checked on.
# libswresample, libswscale and espeak-ng serve le-speak (speech from text, any
# WAV to 16 kHz, frames to an MP4).
for p in libhwy-dev libstb-dev libgtest-dev libgmock-dev python3-numpy python3-onnx python3-pil libonnx-testdata \
         libswresample-dev libswscale-dev espeak-ng; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || need+=("$p")
done
# FFmpeg's libraries play the movie members.
for p in libavformat-dev libavcodec-dev libavutil-dev; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || need+=("$p")
done
# OpenCV's image processing, for the paste benchmark's comparison only: never
# linked into the library.
dpkg-query -W -f='${Status}' libopencv-imgproc-dev 2>/dev/null | grep -q 'install ok installed' ||
  need+=(libopencv-imgproc-dev)
if [ ${#need[@]} -gt 0 ]; then
  echo "setup: installing ${need[*]}"
  sudo=""
  [ "$(id -u)" = 0 ] || sudo=sudo
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${need[@]}" </dev/null
fi

# ONNX Runtime from the npm registry, pinned by package-lock.json. Install
# scripts stay off: the runtime package's own script would download things.
stamp=node_modules/.kestrova-lock.sha256
want=$(sha256sum package-lock.json | cut -d' ' -f1)
if [ ! -f node_modules/onnxruntime-node/bin/napi-v6/linux/x64/libonnxruntime.so.1 ] ||
   [ "$(cat "$stamp" 2>/dev/null)" != "$want" ]; then
  echo "setup: installing ONNX Runtime from package-lock.json"
  npm ci --ignore-scripts --no-audit --no-fund --loglevel=error </dev/null
  echo "$want" >"$stamp"
fi

cmake -S . -B "$build" -G Ninja "${cmake_args[@]}" >/dev/null
cmake --build "$build" -j"$(nproc)"
