#!/usr/bin/env bash
# Checks the HIDL package in interfaces/: it parses, its frozen hash matches
# interfaces/current.txt, and the host stand-in headers declare exactly the
# methods hidl-gen generates (same names, parameter and return types).
set -euo pipefail
cd "$(dirname "$0")/.."

package=vendor.zep.hardware.powerstateservice@1.0
header_dir=vendor/zep/hardware/powerstateservice/1.0
roots=(-r vendor.zep.hardware:interfaces -r android.hidl:interfaces/hidl-base)
stand_ins=platform/host/include/$header_dir

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

hidl-gen -p . -o "$out" -L c++-headers "${roots[@]}" "$package"

status=0
hashes=$(hidl-gen -p . -L hash "${roots[@]}" "$package")
if [ "$hashes" != "$(grep -v '^#' interfaces/current.txt | grep -v '^$')" ]; then
  echo "interfaces/current.txt does not match the interface; hidl-gen -L hash gives:" >&2
  echo "$hashes" >&2
  status=1
fi

# The pure virtual methods of a header, one normalised declaration a line.
methods() {
  tr '\n' ' ' <"$1" | grep -o 'virtual [^;{}]*= 0;' |
    sed -e 's/::vendor::zep::hardware::powerstateservice::V1_0:://g' -e 's/  */ /g' \
        -e 's/( /(/g' -e 's/ )/)/g' | sort
}

for name in IPowerStateService IPowerStateCallback; do
  if ! diff <(methods "$out/$header_dir/$name.h") <(methods "$stand_ins/$name.h") >"$out/diff"; then
    echo "$stand_ins/$name.h differs from the header generated from $name.hal" \
         "(< generated, > stand-in):" >&2
    cat "$out/diff" >&2
    status=1
  fi
done
[ $status -eq 0 ] && echo "HIDL interface and host stand-ins agree"
exit $status
