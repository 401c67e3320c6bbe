#!/usr/bin/env bash
# Checks that Android.bp builds the same library sources as CMakeLists.txt,
# lists the header library of every Android header family the code uses, and
# that every Android.bp is as bpfmt (Debian's blueprint-tools) writes it.
set -euo pipefail
cd "$(dirname "$0")/.."

# Expands the quoted glob patterns of one block (a CMake call or a bp list).
expand() { for pattern in $1; do compgen -G "$pattern" || true; done | sort -u; }

cmake_globs=$(tr '\n' ' ' <CMakeLists.txt |
  grep -oE 'file\(GLOB (KIVHAL_SOURCES|KIVHAL_PROTOS) CONFIGURE_DEPENDS[^)]*\)' |
  sed -E -e 's/file\(GLOB [A-Z_]+ CONFIGURE_DEPENDS//' -e 's/\)$//' \
         -e 's#\$\{CMAKE_CURRENT_SOURCE_DIR\}/##g')
bp_globs=$(tr '\n' ' ' <Android.bp | grep -oE 'srcs: \[[^]]*\]' | head -1 |
  grep -oE '"[^"]+"' | tr -d '"' | grep -v '^platform/device/')

status=0
if ! diff <(expand "$cmake_globs") <(expand "$bp_globs") >/dev/null; then
  echo "Android.bp and CMakeLists.txt build different sources (< CMake, > Android.bp):" >&2
  diff <(expand "$cmake_globs") <(expand "$bp_globs") >&2 || true
  status=1
fi

# Header family used by the library => module that must be in Android.bp.
declare -A needs=([android-base]=libbase_headers [cutils]=libcutils [utils]=libutils
                  [log]=liblog [tinyxml2.h]=libtinyxml2 [hidl]=libhidlbase)
for family in "${!needs[@]}"; do
  if grep -rqE "#include <${family}[/>]" common connection discovery catalogue power include platform/include &&
     ! grep -q "\"${needs[$family]}\"" Android.bp; then
    echo "the library includes <${family}...> but Android.bp lacks \"${needs[$family]}\"" >&2
    status=1
  fi
done
# bpfmt -l names the files whose formatting differs (its exit status does not).
unformatted=$(bpfmt -l $(git ls-files '*Android.bp' 2>/dev/null || find . -name Android.bp))
if [ -n "$unformatted" ]; then
  echo "bpfmt would change (run bpfmt -w on them):" $unformatted >&2
  status=1
fi
[ $status -eq 0 ] && echo "Android.bp is in step with CMakeLists.txt"
exit $status
