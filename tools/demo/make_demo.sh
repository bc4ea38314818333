#!/usr/bin/env bash
# Makes the demo avatar and has it speak a sentence:
#   tools/demo/make_demo.sh OUT_DIR [SENTENCE]
# writes OUT_DIR/demo.mp4 (H.264 + AAC) and OUT_DIR/demo_contact.png (a
# contact sheet of frames across the sentence). Needs a build in build/ and
# the generated speech encoder in OUT_DIR/data (gen_bundles.py).
set -euo pipefail
cd "$(dirname "$0")/../.."
out=${1:?usage: make_demo.sh OUT_DIR [SENTENCE]}
sentence=${2:-"Hello! I am an astronaut. This engine turns my voice into a face that speaks, frame by frame, as the words come in."}
tools/demo/fetch_photo.sh "$out/photo/astronaut.png"
/usr/bin/python3 tools/gen/demo_avatar.py "$out/photo/astronaut.png" "$out/demo/astronaut"
export W2V_ONNX="$PWD/$out/data/audio/w2v/w2v.onnx"
build/tools/le-speak --bundle "$out/demo/astronaut" --text "$sentence" -o "$out/demo.mp4"
/usr/bin/python3 tools/demo/lip_sync.py "$out/demo.mp4"
# Every fourth frame of the sentence, the face at the centre.
ffmpeg -v error -y -i "$out/demo.mp4" \
  -vf "select=not(mod(n\,4))*gte(n\,20),crop=360:360:156:40,scale=180:-1,tile=8x4" \
  -frames:v 1 "$out/demo_contact.png"
echo "demo: $out/demo.mp4"
echo "demo: $out/demo_contact.png"
