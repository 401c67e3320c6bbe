#!/usr/bin/env bash
# Runs a 32-bit ARM program under qemu-arm against the project's sysroot.
# Usage: scripts/qemu-armhf.sh program [arg ...]
#
# Two emulator limits are handled here:
# - qemu does not apply -L to statx(), so the loader would skip RUNPATH
#   directories that exist only in the sysroot: they are passed explicitly;
# - without binfmt_misc an emulated process cannot exec a target program.
#   The program sees a host wrapper as its argv[0] (gtest's death tests
#   re-execute argv[0]), and KIVHAL_EMULATOR names this launcher for the test
#   support's process spawner. Both run the target program under qemu again.
set -euo pipefail
root=${KIVHAL_ARMHF_SYSROOT:-$HOME/.cache/kivhal-armhf-sysroot}
launcher=$(readlink -f "$0")
program=$(readlink -f "$1")
shift

wrapper="$program.qemu"
if [ ! -x "$wrapper" ] || [ "$wrapper" -ot "$launcher" ]; then
  tmp=$(mktemp "$wrapper.XXXXXX")
  printf '#!/bin/sh\nexec "%s" "%s" "$@"\n' "$launcher" "$program" >"$tmp"
  chmod +x "$tmp"
  mv -f "$tmp" "$wrapper"  # atomic: tests of one binary start in parallel
fi

exec qemu-arm -L "$root" -0 "$wrapper" \
  -E KIVHAL_EMULATOR="$launcher" \
  -E LD_LIBRARY_PATH="$root/usr/lib/arm-linux-gnueabihf/android:$root/usr/lib/p7zip" \
  "$program" "$@"
