#!/usr/bin/env bash
# Fails when a tracked C or C++ source differs from what clang-format-14 makes
# of it (.clang-format at the root). Fix with:
#   git ls-files '*.c' '*.cpp' '*.h' | xargs clang-format-14 -i
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh clang-format-14
git ls-files -z '*.c' '*.cpp' '*.h' | xargs -0 clang-format-14 --dry-run --Werror
