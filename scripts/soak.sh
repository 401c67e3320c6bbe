#!/usr/bin/env bash
# A soak of the report path: kivhal-coresim streams reports as fast as the
# channel takes them to kivhal-soak, a client of the library that
# re-registers sensors every few seconds, while low-power changes and
# write-infos (with their replays) arrive every two seconds. Ends with one
# summary line; exits 1 when a report was lost, descriptors grew, RSS grew by
# more than a small bound after the warm-up, or the wake lock was left held.
# Usage: scripts/soak.sh [SECONDS] [--holdoff MS]   (default: 60 s, hold-off 0)
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=60
holdoff=0
while [ $# -gt 0 ]; do
    case "$1" in
        --holdoff) holdoff="${2:?--holdoff needs milliseconds}"; shift 2 ;;
        --holdoff=*) holdoff="${1#--holdoff=}"; shift ;;
        [0-9]*) seconds="$1"; shift ;;
        *) echo "usage: scripts/soak.sh [SECONDS] [--holdoff MS]" >&2; exit 2 ;;
    esac
done
# Allocator and stdio growth after the warm-up stays well below this.
rss_bound_kib=1024

scripts/install-deps.sh
cmake --preset default >/dev/null
build_log=$(mktemp)
if ! cmake --build --preset default -j "$(nproc)" --target kivhal-coresim kivhal-soak >"$build_log" 2>&1; then
    cat "$build_log"
    rm -f "$build_log"
    exit 1
fi
rm -f "$build_log"
tools=build/default/tools

. scripts/lib/sim_workdir.sh

# Session 0 leaves and re-enters its low-power state, then a write-info
# replays the stored reports, every two seconds.
"$tools/kivhal-coresim" --root "$root" --report-ms 0 --low-power 500:off,1000:on \
    --write-info 1500 --repeat-ms 2000 >"$work/coresim.log" 2>&1 &
sim_pid=$!
wait_sim_serving

echo "=== soak: ${seconds} s, wake-lock hold-off ${holdoff} ms"
client_status=0
"$tools/kivhal-soak" --root "$root" --seconds "$seconds" --holdoff "$holdoff" \
    >"$work/client.out" || client_status=$?
stop_sim
sent=$(sed -n 's/^kivhal-coresim: \([0-9]*\) reports sent$/\1/p' "$work/coresim.log")
if [ "$client_status" -ne 0 ] || [ -z "$sent" ]; then
    cat "$work/client.out" "$work/coresim.log"
    echo "soak: the client or the simulator failed (client status $client_status)" >&2
    exit 1
fi

declare -A got
for pair in $(cat "$work/client.out"); do got[${pair%%=*}]=${pair#*=}; done
lost=$((sent - got[delivered]))
rss_growth=$((got[rss_end_kib] - got[rss_start_kib]))
echo "sent $sent, delivered ${got[delivered]}, lost $lost," \
    "RSS ${got[rss_start_kib]} -> ${got[rss_end_kib]} KiB," \
    "descriptors ${got[fds_start]} -> ${got[fds_end]}," \
    "kernel lock writes ${got[lock_writes]}, unlock writes ${got[unlock_writes]}," \
    "wake lock released: ${got[released]}" \
    "(replayed ${got[replayed]}, library error lines ${got[log_errors]})"

status=0
[ "$lost" -eq 0 ] || { echo "soak: $lost reports lost" >&2; status=1; }
[ "${got[fds_end]}" -le "${got[fds_start]}" ] || { echo "soak: descriptors grew" >&2; status=1; }
[ "$rss_growth" -le "$rss_bound_kib" ] ||
    { echo "soak: RSS grew by $rss_growth KiB after the warm-up (bound $rss_bound_kib)" >&2; status=1; }
[ "${got[released]}" = yes ] || { echo "soak: the wake lock was left held" >&2; status=1; }
exit $status
