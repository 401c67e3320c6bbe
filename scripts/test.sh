#!/usr/bin/env bash
# Builds and runs the whole test suite in every build: normal,
# AddressSanitizer + UndefinedBehaviorSanitizer, and ThreadSanitizer.
# Usage: scripts/test.sh [preset ...]   (default: default asan tsan)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(default asan tsan)

jobs=$(nproc)
# Tests spend most of their time waiting on the protocol's fixed timeouts, so
# run more of them than there are cores.
test_jobs=$((jobs * 4))

# Each preset's tests run while the next preset builds; their output is
# printed, preset by preset, once all have finished.
logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT
pids=()
for preset in "${presets[@]}"; do
  echo "=== ${preset}: configure and build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  ctest --preset "$preset" -j "$test_jobs" >"$logs/$preset" 2>&1 &
  pids+=($!)
done

status=0
for i in "${!presets[@]}"; do
  rc=0
  wait "${pids[$i]}" || rc=$?
  echo "=== ${presets[$i]}: test"
  cat "$logs/${presets[$i]}"
  [ "$rc" -eq 0 ] || status=1
done
exit $status
