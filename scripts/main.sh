#!/usr/bin/env bash
# Sets everything up and runs the main job: generate the sample avatar bundle,
# pack it into a container, and open both forms through the engine.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
out=out
/usr/bin/python3 tools/gen/gen_bundles.py "$out/data"
build/tools/le-bundle version
build/tools/le-bundle pack "$out/data/sample" "$out/sample.imx"
build/tools/le-bundle info "$out/sample.imx"
