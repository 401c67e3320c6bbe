#!/usr/bin/env bash
# Installs the Debian packages the build needs, only those that are missing.
# Usage: scripts/install-deps.sh [EXTRA_PACKAGE...]   (e.g. what fuzzing needs)
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  libprotobuf-dev protobuf-compiler
  libtinyxml2-dev
  googletest libgtest-dev libgmock-dev
  libbenchmark-dev
  android-libutils-dev android-libcutils-dev
  android-libbase-dev clang-14
  hidl-gen libxml2-utils
  tshark blueprint-tools
  "$@"
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
