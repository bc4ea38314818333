#!/usr/bin/env bash
# le-bundle as an avatar author uses it: info on good and refused bundles,
# pack, unpack, and a round trip that keeps every byte.
set -euo pipefail
tool=$1 data=$2
mkdir -p "$3"
tmp=$(mktemp -d "$3/lebundle.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

out=$("$tool" info "$data/sample")
grep -qx 'agent         sample' <<<"$out" || fail "info agent: $out"
grep -qx 'canvas        64x48 (W x H)' <<<"$out" || fail "info canvas"
grep -Eq '^  drive/xs.f32 +primary +drive/xs.f32$' <<<"$out" || fail "primary member"
grep -Eq '^  P_hevc.mov +missing' <<<"$out" || fail "missing member"
out=$("$tool" info "$data/sample_canonical")
grep -Eq '^  drive/si.i32 +canonical +idle_loop/source_index.i32$' <<<"$out" || fail "canonical member"

# A refused bundle prints the engine's own refusal and exits non-zero.
set +e
err=$("$tool" info "$data/manifests/no_agent" 2>&1 >/dev/null); rc=$?
set -e
[ "$rc" = 1 ] || fail "refused info exit $rc"
[ "$err" = "le_create: manifest: missing key agent" ] || fail "refusal text: $err"

# pack -> unpack -> identical files; info through the container.
"$tool" pack "$data/sample" "$tmp/s.imx" | grep -q '^packed 20 members' || fail "pack"
dir=$("$tool" unpack "$tmp/s.imx" "$tmp/root" 2>/dev/null)
[ "$dir" = "$tmp/root/s.lebundle" ] || fail "unpack dir $dir"
diff -r "$data/sample" "$dir" || fail "round trip differs"
"$tool" info "$tmp/s.imx" 2>/dev/null | grep -qx "resolved      $tmp/s.lebundle" || fail "info on container"

# Packing a bundle the engine refuses is refused with the same sentence.
set +e
err=$("$tool" pack "$data/manifests/no_nt" "$tmp/bad.imx" 2>&1); rc=$?
set -e
[ "$rc" = 1 ] && [ "$err" = "le_create: manifest: missing key NT/frame_count" ] || fail "pack refusal: $rc $err"
[ ! -e "$tmp/bad.imx" ] || fail "refused pack left a file"

set +e
"$tool" unpack "$data/sample/M.f32" >/dev/null 2>&1; rc1=$?
"$tool" frobnicate >/dev/null 2>&1; rc2=$?
set -e
[ "$rc1" = 1 ] && [ "$rc2" = 2 ] || fail "exit codes $rc1 $rc2"
echo "le-bundle: all checks passed"
