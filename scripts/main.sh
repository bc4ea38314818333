#!/usr/bin/env bash
# Sets everything up and runs the main job: generate the sample avatar bundle,
# pack it into a container, open it through the engine, and render frames of
# its idle loop through the C interface into PNG files.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
out=out
/usr/bin/python3 tools/gen/gen_bundles.py "$out/data"
build/tools/le-bundle version
build/tools/le-bundle pack "$out/data/sample" "$out/sample.imx"
build/tools/le-bundle info "$out/sample.imx"
build/tools/le-bundle render --model b1_fp32 "$out/sample.imx" 12 "$out/frames"
