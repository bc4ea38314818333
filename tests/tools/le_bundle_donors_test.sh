#!/usr/bin/env bash
# le-bundle donors: the teeth bank's track written as donor PNGs in donor
# order, byte for byte the frames the bank was made of; a track stored as
# YUV is refused, and so is a sidecar that disagrees with the track.
set -euo pipefail
tool=$1 data=$2/movies/bundles
mkdir -p "$3"
tmp=$(mktemp -d "$3/donors.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

out=$("$tool" donors "$data/teeth_bank" "$tmp/out")
[ "$out" = "wrote 5 donor frames of the teeth bank, in donor order, into $tmp/out" ] || fail "donors: $out"
/usr/bin/python3 - "$tmp/out" "$data/teeth_bank_donors.rgb" <<'PY' || fail "donor bytes"
import sys
from PIL import Image
want = open(sys.argv[2], "rb").read()
n = 24 * 14 * 3
for i in range(5):
    img = Image.open("%s/donor_%04d.png" % (sys.argv[1], i))
    assert img.size == (24, 14) and img.mode == "RGB", (i, img.size, img.mode)
    assert img.tobytes() == want[i * n:(i + 1) * n], i
PY

set +e
err=$("$tool" donors "$data/teeth_bank_yuv" "$tmp/yuv" 2>&1); rc=$?
set -e
[ "$rc" = 1 ] || fail "yuv exit $rc"
[ "$err" = "le-bundle: $data/teeth_bank_yuv/tessera_bank.v1.mp4 decodes to yuv444p, not an 8-bit RGB layout — donor bytes from it need a colour conversion the bank doesn't define. Refusing." ] || fail "yuv refusal: $err"
[ ! -e "$tmp/yuv" ] || fail "a refused bank wrote donors"

# A sidecar that counts one donor more than the track carries.
cp -r "$data/teeth_bank" "$tmp/six"
sed -i 's/"n_donors": 5, "track_order": \[3, 0, 4, 1, 2\]/"n_donors": 6, "track_order": [3, 0, 4, 1, 2, 5]/' "$tmp/six/tessera_bank.v1.json"
set +e
err=$("$tool" donors "$tmp/six" "$tmp/six_out" 2>&1); rc=$?
set -e
[ "$rc" = 1 ] && [ "$err" = "le-bundle: $tmp/six/tessera_bank.v1.mp4 carries 5 frames, the sidecar says n_donors=6" ] ||
  fail "count refusal: $rc $err"
echo "le-bundle donors: ok"
