#!/usr/bin/env bash
# Builds and runs the whole test suite in every build: normal,
# AddressSanitizer + UndefinedBehaviorSanitizer, and ThreadSanitizer; then
# builds the library and tools with clang's thread-safety analysis (clang-tsa,
# compile only: it fails on a lock-annotation warning). Also checks the HIDL
# interface and Android.bp against the host build, and the sources' format.
# Usage: scripts/test.sh [preset ...]   (default: default asan tsan clang-tsa)
#        scripts/test.sh armhf           (32-bit ARM cross build under qemu-arm)
set -euo pipefail
cd "$(dirname "$0")/.."

presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(default asan tsan clang-tsa)

scripts/install-deps.sh
if [[ " ${presets[*]} " == *" armhf "* ]]; then
  scripts/install-deps.sh g++-arm-linux-gnueabihf qemu-user
  scripts/armhf-sysroot.sh
fi

jobs=$(nproc)
# Tests spend most of their time waiting on the protocol's fixed timeouts, so
# run more of them than there are cores.
test_jobs=$((jobs * 4))

status=0
echo "=== interface, Android.bp and format checks"
scripts/check-hidl.sh || status=1
scripts/check-android-bp.sh || status=1
scripts/check-format.sh || status=1

# Each preset's tests run while the next preset builds; their output is
# printed, preset by preset, once all have finished.
logs=$(mktemp -d "${TMPDIR:-/tmp}/kivhal-test.XXXXXX")
tested=()
pids=()
finished=0
# A failed build ends the script (set -e) while earlier presets' tests still
# run in the background: stop them, and keep every log unless all passed.
on_exit() {
  local rc=$?
  local stopped=()
  for i in "${!pids[@]}"; do
    if kill -0 "${pids[$i]}" 2>/dev/null; then
      kill -TERM -- "-${pids[$i]}" 2>/dev/null || true
      wait "${pids[$i]}" 2>/dev/null || true
      stopped+=("${tested[$i]}")
    fi
  done
  if [ "$finished" = 1 ] && [ "$rc" -eq 0 ]; then
    rm -rf "$logs"
    return
  fi
  [ ${#stopped[@]} -eq 0 ] || echo "=== stopped the tests of: ${stopped[*]}" >&2
  echo "=== test logs kept in $logs" >&2
}
trap on_exit EXIT
for preset in "${presets[@]}"; do
  echo "=== ${preset}: configure and build"
  cmake --preset "$preset" >/dev/null
  if [ "$preset" = armhf ]; then
    # Cross compiling is heavy and shares the machine; tests still run wide.
    nice -n 10 cmake --build --preset "$preset" -j "$jobs"
  else
    cmake --build --preset "$preset" -j "$jobs"
  fi
  [ "$preset" = clang-tsa ] && continue
  # A process group of its own, so stopping it stops the tests it runs.
  setsid ctest --preset "$preset" -j "$test_jobs" >"$logs/$preset" 2>&1 &
  tested+=("$preset")
  pids+=($!)
done

for i in "${!tested[@]}"; do
  rc=0
  wait "${pids[$i]}" || rc=$?
  echo "=== ${tested[$i]}: test"
  cat "$logs/${tested[$i]}"
  [ "$rc" -eq 0 ] || status=1
done
finished=1
exit $status
