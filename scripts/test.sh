#!/usr/bin/env bash
# Builds and runs the whole test suite in every build: normal,
# AddressSanitizer + UndefinedBehaviorSanitizer, and ThreadSanitizer; then
# builds the library and tools with clang's thread-safety analysis (clang-tsa,
# compile only: it fails on a lock-annotation warning).
# Usage: scripts/test.sh [preset ...]   (default: default asan tsan clang-tsa)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(default asan tsan clang-tsa)

jobs=$(nproc)
# Tests spend most of their time waiting on the protocol's fixed timeouts, so
# run more of them than there are cores.
test_jobs=$((jobs * 4))

# Each preset's tests run while the next preset builds; their output is
# printed, preset by preset, once all have finished.
logs=$(mktemp -d)
trap 'rm -rf "$logs"' EXIT
tested=()
pids=()
for preset in "${presets[@]}"; do
  echo "=== ${preset}: configure and build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  [ "$preset" = clang-tsa ] && continue
  ctest --preset "$preset" -j "$test_jobs" >"$logs/$preset" 2>&1 &
  tested+=("$preset")
  pids+=($!)
done

status=0
for i in "${!tested[@]}"; do
  rc=0
  wait "${pids[$i]}" || rc=$?
  echo "=== ${tested[$i]}: test"
  cat "$logs/${tested[$i]}"
  [ "$rc" -eq 0 ] || status=1
done
exit $status
