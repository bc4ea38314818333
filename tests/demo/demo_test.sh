#!/usr/bin/env bash
# The demo end to end: the astronaut bundle opens with no refusal, le-speak
# speaks a sentence into an MP4 of one H.264 and one AAC stream at 25 fps
# whose length is the frames it reports, the mouth follows the sound, and
# le-speak's errors are one sentence and a non-zero exit.
#   demo_test.sh SRC_DIR BUILD_DIR DATA_DIR TMP_DIR
set -euo pipefail
src=$1 build=$2 data=$3
mkdir -p "$4"
tmp=$(mktemp -d "$4/demo.XXXXXX")
trap 'rm -rf "$tmp"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }
speak=$build/tools/le-speak
export W2V_ONNX=$data/audio/w2v/w2v.onnx KESTROVA_ENGINE_QUIET=1

"$src/tools/demo/fetch_photo.sh" "$build/photo/astronaut.png"
/usr/bin/python3 "$src/tools/gen/demo_avatar.py" "$build/photo/astronaut.png" "$tmp/astronaut"
"$build/tools/le-bundle" info "$tmp/astronaut" >"$tmp/info.txt" 2>&1 || fail "the demo bundle is refused: $(cat "$tmp/info.txt")"

summary=$("$speak" --bundle "$tmp/astronaut" --text "I can speak, and my lips follow the sound of my voice." \
  -o "$tmp/out.mp4" | tail -1)
frames=$(sed -n 's/^le-speak: wrote .*: \([0-9]*\) frames .*/\1/p' <<<"$summary")
[ -n "$frames" ] || fail "no summary line: $summary"
grep -q ' 0 skipped' <<<"$summary" || fail "frames skipped on the host's own clock: $summary"
streams=$(ffprobe -v error -show_entries stream=codec_type,codec_name,r_frame_rate -of csv=p=0 "$tmp/out.mp4")
[ "$(grep -c . <<<"$streams")" = 2 ] || fail "streams: $streams"
grep -qx 'h264,video,25/1' <<<"$streams" || fail "no 25 fps H.264 stream: $streams"
grep -q '^aac,audio' <<<"$streams" || fail "no AAC stream: $streams"
vframes=$(ffprobe -v error -select_streams v:0 -show_entries stream=nb_frames -of csv=p=0 "$tmp/out.mp4")
[ "$vframes" = "$frames" ] || fail "the video holds $vframes frames, le-speak reported $frames"
vdur=$(ffprobe -v error -select_streams v:0 -show_entries stream=duration -of csv=p=0 "$tmp/out.mp4")
python3 -c "import sys; sys.exit(0 if abs(float('$vdur') - $frames / 25.0) <= 0.041 else 1)" ||
  fail "video lasts $vdur s for $frames frames"
adur=$(ffprobe -v error -select_streams a:0 -show_entries stream=duration -of csv=p=0 "$tmp/out.mp4")
python3 -c "import sys; sys.exit(0 if abs(float('$adur') - $frames / 25.0) <= 0.1 else 1)" ||
  fail "audio lasts $adur s for $frames frames"
/usr/bin/python3 "$src/tools/demo/lip_sync.py" "$tmp/out.mp4" 0.6 || fail "the lips don't follow the sound"

# Errors: one sentence on standard error, exit 1.
expect_error() {
  local want=$1; shift
  set +e
  err=$("$@" 2>&1 >/dev/null); rc=$?
  set -e
  [ "$rc" = 1 ] || fail "exit $rc for: $*"
  [ "$(grep -c . <<<"$err")" = 1 ] || fail "more than one line: $err"
  grep -q -- "$want" <<<"$err" || fail "expected '$want', got: $err"
}
expect_error "le-speak: no avatar bundle at $tmp/nothing" "$speak" --bundle "$tmp/nothing" --text hi -o "$tmp/x.mp4"
expect_error "le-speak: cannot read the audio file $tmp/none.wav" "$speak" --bundle "$tmp/astronaut" --wav "$tmp/none.wav" -o "$tmp/x.mp4"
printf 'RIFF1234WAVEnot really a wave file' >"$tmp/bad.wav"
expect_error "le-speak: $tmp/bad.wav is not a readable audio file" "$speak" --bundle "$tmp/astronaut" --wav "$tmp/bad.wav" -o "$tmp/x.mp4"
expect_error "le-speak: espeak-ng is not installed" env PATH=/nonexistent "$speak" --bundle "$tmp/astronaut" --text hi -o "$tmp/x.mp4"
# A WAV of another rate and two channels is resampled, not refused.
ffmpeg -v error -i "$data/audio/clips/speech_3s.wav" -t 1 -ar 44100 -ac 2 "$tmp/stereo.wav"
"$speak" --bundle "$tmp/astronaut" --wav "$tmp/stereo.wav" -o "$tmp/stereo.mp4" >/dev/null || fail "stereo 44.1 kHz WAV"
echo "demo: $summary"
