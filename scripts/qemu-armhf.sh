#!/usr/bin/env bash
# Runs a 32-bit ARM program under qemu-arm against the project's sysroot.
# qemu does not apply -L to statx(), so the loader would skip RUNPATH
# directories that exist only in the sysroot: they are passed explicitly.
# Programs spawned from an emulated process (death tests, tool tests) find
# this launcher in KIVHAL_EMULATOR and go through it too.
set -euo pipefail
root=${KIVHAL_ARMHF_SYSROOT:-$HOME/.cache/kivhal-armhf-sysroot}
export KIVHAL_EMULATOR="$(readlink -f "$0")"
exec qemu-arm -L "$root" \
  -E KIVHAL_EMULATOR="$KIVHAL_EMULATOR" \
  -E LD_LIBRARY_PATH="$root/usr/lib/arm-linux-gnueabihf/android:$root/usr/lib/p7zip" \
  "$@"
