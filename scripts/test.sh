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

status=0
for preset in "${presets[@]}"; do
  echo "=== ${preset}: configure and build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset" -j "$jobs"
  [ "$preset" = clang-tsa ] && continue
  echo "=== ${preset}: test"
  if ! ctest --preset "$preset" -j "$test_jobs"; then
    status=1
  fi
done
exit $status
