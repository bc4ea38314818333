#!/usr/bin/env bash
# Builds the libFuzzer harnesses of the readers of untrusted bytes (clang,
# AddressSanitizer, UndefinedBehaviorSanitizer) in build-fuzz/ and runs each
# in turn for SECONDS (default 60), over a working corpus in
# build-fuzz/corpus/<harness> seeded by the generator's data/fuzz/<harness>.
# A finding lands in build-fuzz/findings/<harness>/ and fails the script;
# findings of earlier runs stay there until removed.
#
#   scripts/fuzz.sh [SECONDS] [HARNESS[:SECONDS]...]
#
# A harness named with its own SECONDS runs that long instead. FUZZ_JOBS=N
# runs N harnesses at a time; build-fuzz/logs/history keeps a line per
# harness run, so executions over several runs can be added up.
#
# Ends with a table per harness: executions, coverage (libFuzzer's cov and
# ft) and the findings of this run.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true

# clang and its libFuzzer runtime (Debian packages), on first use.
need=()
command -v clang++ >/dev/null || need+=(clang)
command -v ninja >/dev/null || need+=(ninja-build)
command -v cmake >/dev/null || need+=(cmake)
[ -x /usr/bin/python3 ] || need+=(python3)
for p in python3-numpy python3-onnx python3-pil; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || need+=("$p")
done
if [ ${#need[@]} -gt 0 ]; then
  sudo=""
  [ "$(id -u)" = 0 ] || sudo=sudo
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${need[@]}" </dev/null
fi
version=$(clang++ -dumpversion | cut -d. -f1)
if ! ls /usr/lib/llvm-"$version"/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1; then
  sudo=""
  [ "$(id -u)" = 0 ] || sudo=sudo
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "libclang-rt-$version-dev" </dev/null
fi

build=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLE_FUZZ=ON >/dev/null
cmake --build "$build" -j"$(nproc)"
/usr/bin/python3 tools/gen/gen_bundles.py "$build/data" >/dev/null
/usr/bin/python3 tools/gen/fuzz_seeds.py "$build/data"

harnesses=("$@")
if [ ${#harnesses[@]} -eq 0 ]; then
  for f in "$build"/tests/fuzz/fuzz_*; do harnesses+=("${f##*/fuzz_}"); done
fi

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

# One harness for the given time; its summary line goes to logs/<h>.summary
# and, with the date, to logs/history (runs add up over a corpus that stays).
fuzz_one() {
  local h=$1 seconds=$2
  local corpus="$build/corpus/$h" findings="$build/findings/$h" log="$build/logs/$h.log" d
  mkdir -p "$corpus" "$findings" "${log%/*}"
  case "$h" in
    wire | gridsample_fast | blend_gemm | head_cubic | compose_v2_splice | source_cone | warp_block | warp_fuse | conv_model)
      d=onnx ;;
    teeth_json | lip_template | compose_v2_structure | teeth_members | serve_config | unified_pi) d=json ;;
    head_pt | head_pickle) d=pickle ;;
    drive) d=manifest ;;
    *) d=$h ;;
  esac
  local dict=()
  [ -f "tests/fuzz/dict/$d.dict" ] && dict=(-dict="tests/fuzz/dict/$d.dict")
  local stamp="$build/logs/$h.start"
  touch "$stamp"
  echo "fuzz: $h for ${seconds}s"
  # The readers' own diagnostics stay out of the log (-close_fd_mask=2);
  # libFuzzer's lines and sanitizer reports still reach it.
  local rc=0
  "$build/tests/fuzz/fuzz_$h" -max_total_time="$seconds" -print_final_stats=1 -close_fd_mask=2 \
    -rss_limit_mb=2048 -malloc_limit_mb=256 -timeout=10 -artifact_prefix="$findings/" "${dict[@]}" \
    "$corpus" "$build/data/fuzz/$h" >"$log" 2>&1 || rc=$?
  local execs cov found line
  execs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | tail -1 | grep -o '[0-9]*$' || true)
  # A run cut short prints no final stats: its last status line counts.
  [ -n "$execs" ] || execs=$(grep -oE '^#[0-9]+' "$log" | tail -1 | tr -d '#' || true)
  cov=$(grep -oE 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -1 || true)
  found=$(find "$findings" -type f -newer "$stamp" | wc -l)
  line=$(printf '%-22s %12s execs  %-22s %s finding(s)' "$h" "${execs:-0}" "$cov" "$found")
  echo "$line" >"$build/logs/$h.summary"
  echo "$(date -u +%FT%TZ) ${seconds}s $line" >>"$build/logs/history"
  if [ "$rc" != 0 ] || [ "$found" != 0 ]; then
    echo "fuzz: $h FAILED (exit $rc); see $log and $findings"
    return 1
  fi
}

# FUZZ_JOBS harnesses at a time (default 1: each harness gets the machine).
jobs=${FUZZ_JOBS:-1}
failed=0
running=0
for entry in "${harnesses[@]}"; do
  h=${entry%%:*}
  t=$seconds
  [ "$h" = "$entry" ] || t=${entry#*:}
  rm -f "$build/logs/$h.summary"
  if [ "$running" -ge "$jobs" ]; then
    wait -n || failed=1
    running=$((running - 1))
  fi
  fuzz_one "$h" "$t" &
  running=$((running + 1))
done
while [ "$running" -gt 0 ]; do
  wait -n || failed=1
  running=$((running - 1))
done
echo
for entry in "${harnesses[@]}"; do
  h=${entry%%:*}
  cat "$build/logs/$h.summary" 2>/dev/null || echo "$h: no summary"
done
exit $failed
