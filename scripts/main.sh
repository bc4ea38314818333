#!/usr/bin/env bash
# Sets everything up and runs the main job: what a voice-agent host does.
# It generates the sample avatar bundle and its speech models, packs the
# bundle into a container, opens it through the engine, starts a live
# session, pushes a generated speech clip in 20 ms blocks at real-time pace
# from one thread while another pulls frames at 25 fps and reports how far
# its audio has played, interrupts once mid-sentence and speaks again. The
# frames (PNG), the speech (WAV) and an index land under out/live/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
out=out
/usr/bin/python3 tools/gen/gen_bundles.py "$out/data"
build/tools/le-bundle version
build/tools/le-bundle pack "$out/data/sample" "$out/sample.imx"
build/tools/le-bundle info "$out/sample.imx"
# The speech encoder lives outside the bundle, as a host ships it.
export W2V_ONNX="$PWD/$out/data/audio/w2v/w2v.onnx"
rm -rf "$out/live"
build/tools/le-live --interrupt-at 1.6 "$out/sample.imx" "$out/data/audio/clips/speech_10s.wav" "$out/live"
# The demo: a real face that speaks a sentence, as a movie with sound.
tools/demo/make_demo.sh "$out"
