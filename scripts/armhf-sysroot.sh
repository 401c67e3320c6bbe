#!/usr/bin/env bash
# Makes the 32-bit ARM target sysroot from Debian's armhf packages without
# installing them: the architecture is added only long enough to read its
# index, the packages are downloaded and unpacked, and apt is left as it was.
# Usage: scripts/armhf-sysroot.sh [dir]   (default: ~/.cache/kivhal-armhf-sysroot)
set -euo pipefail

root=${1:-${KIVHAL_ARMHF_SYSROOT:-$HOME/.cache/kivhal-armhf-sysroot}}
packages=(
  libc6 libc6-dev linux-libc-dev libstdc++6 libgcc-s1
  libprotobuf-dev libprotobuf-lite32 libprotobuf32 zlib1g zlib1g-dev
  libtinyxml2-dev libtinyxml2-9 libgtest-dev libgmock-dev
  android-libutils android-libutils-dev android-liblog android-liblog-dev
  android-libcutils android-libcutils-dev android-libbase android-libbase-dev
  android-libbacktrace android-libbacktrace-dev p7zip-full
)
stamp="$root/.kivhal-packages"
wanted=$(printf '%s\n' "${packages[@]}")
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$wanted" ]; then
  exit 0
fi

sudo_cmd=()
[ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
restore_apt() {
  "${sudo_cmd[@]}" dpkg --remove-architecture armhf || true
  "${sudo_cmd[@]}" apt-get update -qq || true
}
trap restore_apt EXIT

"${sudo_cmd[@]}" dpkg --add-architecture armhf
# The armhf security index may lag behind; one failing index is tolerated.
"${sudo_cmd[@]}" apt-get update -qq || true

debs=$(mktemp -d)
(cd "$debs" && apt-get download -qq "${packages[@]/%/:armhf}" android-platform-system-core-headers)
rm -rf "$root"
mkdir -p "$root"
for deb in "$debs"/*.deb; do
  dpkg-deb -x "$deb" "$root"
done
rm -rf "$debs"
echo "$wanted" >"$stamp"
echo "armhf sysroot ready in $root"
