#!/usr/bin/env bash
# Builds the `fuzz` preset and runs its libFuzzer targets, each for SECONDS.
# Usage: scripts/fuzz.sh [SECONDS] [TARGET...]   (default: 60 s, every target)
# TARGET is a name from fuzz/CMakeLists.txt with or without "fuzz_".
#
# Each target starts from its seed corpus (fuzz/corpus/<target>, read only)
# and grows a corpus of its own outside the repository, under
# $KIVHAL_FUZZ_DIR (default ~/.cache/kivhal-fuzz), where findings land too.
# Prints executions and coverage per target; exits 1 on any finding.
set -euo pipefail
cd "$(dirname "$0")/.."

all_targets=(channel_stream discovery_callbacks oem_config sensorstore_write_info
             mandatory_list tool_inputs)

seconds=${1:-60}
[ $# -gt 0 ] && shift
targets=()
for t in "$@"; do targets+=("${t#fuzz_}"); done
[ ${#targets[@]} -gt 0 ] || targets=("${all_targets[@]}")

scripts/install-deps.sh clang-14 libclang-rt-14-dev

work=${KIVHAL_FUZZ_DIR:-${XDG_CACHE_HOME:-$HOME/.cache}/kivhal-fuzz}
build=build/fuzz/fuzz

echo "=== fuzz: configure and build"
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)" --target "${targets[@]/#/fuzz_}"

# Options beyond the defaults: the channel target's packets reach the
# reader's whole buffer; the XML readers get the file's words. The parser keeps
# byte thresholds for the process's life by design, so nearly every
# configuration would start libFuzzer's per-input leak scan (100 times
# slower); that target is checked for leaks at exit only.
target_options() {
  case $1 in
    channel_stream) echo "-max_len=12288" ;;
    oem_config) echo "-dict=fuzz/oem_config.dict -detect_leaks=0" ;;
    tool_inputs) echo "-dict=fuzz/oem_config.dict" ;;
  esac
}

status=0
printf '%-24s %12s %8s %7s %7s  %s\n' TARGET EXECS EXEC/S COV FT RESULT
for t in "${targets[@]}"; do
  corpus=$work/corpus/$t
  findings=$work/findings/$t
  log=$work/logs/$t.log
  mkdir -p "$corpus" "$findings" "$(dirname "$log")"
  rm -f "$findings"/*
  rc=0
  # shellcheck disable=SC2046
  "$build/fuzz_$t" -max_total_time="$seconds" -timeout=30 -print_final_stats=1 \
    -artifact_prefix="$findings/" $(target_options "$t") \
    "$corpus" "fuzz/corpus/$t" >"$log" 2>&1 || rc=$?
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  speed=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log" | tail -1)
  cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
  ft=$(grep -o 'ft: [0-9]*' "$log" | tail -1 | cut -d' ' -f2)
  result=ok
  if [ "$rc" -ne 0 ] || [ -n "$(ls -A "$findings")" ]; then
    result="FINDING (exit $rc): $findings, log $log"
    status=1
  fi
  printf '%-24s %12s %8s %7s %7s  %s\n' "$t" "${execs:-?}" "${speed:-?}" "${cov:-?}" \
    "${ft:-?}" "$result"
done
exit $status
