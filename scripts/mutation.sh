#!/usr/bin/env bash
# Mutation check of the suite: patches each fault of scripts/mutation_faults.txt
# (or, with --generate, systematic one-token mutants of the library) into a
# private copy of the sources (build/mutation/src), rebuilds it, runs every
# case but the slow ones and reports killed / survived / did not compile and
# the score. The source tree is only read.
# Usage: scripts/mutation.sh [--list] [--rev REV] [FAULT_ID...]   (--help for more)
#        scripts/mutation.sh --generate [--sample N --seed S] [--list] [ID...]
set -euo pipefail
exec python3 "$(dirname "$0")/mutation.py" "$@"
