#!/usr/bin/env bash
# The library's main job without a watch on the desk: builds the tools, starts
# the simulated sensor core on a temporary device root with the example OEM
# configuration, and runs kivhal-info against it twice, as the HAL service's
# first boot after flashing and as a later boot. The later boot is captured
# (persist.vendor.debug.kiv.capture), shown dated and in order and summed up
# per message id with tshark and the dissector, and replayed through kivhal-info by kivhal-coresim --replay.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

# CMake's progress on one line on a terminal, the lines of work done
# otherwise; the whole log only when the build fails.
show_progress() {
    if [ -t 1 ]; then
        local width=$(( $(tput cols 2>/dev/null || echo 80) - 1 ))
        while IFS= read -r line; do
            [[ $line == "["* ]] && printf '\r\033[K%s' "${line:0:$width}"
        done
        printf '\r\033[K'
    else
        grep --line-buffered -E '^\[ *[0-9]+%\] (Building|Linking|Generating)' || true
    fi
}

echo "=== build (preset default: the four tools; from scratch about 35 s on 2 cores)"
cmake --preset default >/dev/null
build_log=build/default/demo-build.log
if ! cmake --build --preset default -j "$(nproc)" \
        --target kivhal-coresim kivhal-info kivhal-lint kivhal-sensorstore 2>&1 |
        tee "$build_log" | show_progress; then
    cat "$build_log"
    exit 1
fi
tools=build/default/tools
config=examples/oem_config.xml

echo "=== kivhal-lint $config"
"$tools/kivhal-lint" "$config"

. scripts/lib/sim_workdir.sh

echo "=== kivhal-coresim on $root"
"$tools/kivhal-coresim" --root "$root" --config "$config" >"$work/coresim.log" 2>&1 &
sim_pid=$!
wait_sim_serving
cat "$work/coresim.log"

echo
echo "=== kivhal-info, first boot after flashing (no persisted sensor list yet)"
"$tools/kivhal-info" --root "$root" --config "$config"

echo
echo "=== kivhal-info, later boot (waits only for the sensors the first boot listed), captured"
capture="$work/later-boot.pcapng"
"$tools/kivhal-info" --root "$root" --config "$config" \
    --property "persist.vendor.debug.kiv.capture=$capture" | tee "$work/live.txt"

echo
stop_sim
echo "=== simulator stopped"

echo
dissect=(-X lua_script:tools/wireshark/kivhal_channel.lua
         -o "uat:protobuf_search_paths:\"$PWD/proto\",\"TRUE\"")
echo "=== capture $capture: the first packets, dated (tshark -t ad, tools/wireshark/kivhal_channel.lua)"
tshark -r "$capture" -c 8 -t ad "${dissect[@]}" 2>/dev/null
tshark -r "$capture" -T fields -e frame.time_epoch 2>/dev/null |
    awk 'NR > 1 && $1 < last { back++ } { last = $1 }
         END { printf "  %d packets in file order, %d earlier than the one before\n", NR, back }'
echo "=== packets per message id"
tshark -r "$capture" "${dissect[@]}" \
    -T fields -e frame.packet_flags_direction -e kivhal.msg_id 2>/dev/null |
    awk '{ key = ($1 == 2 ? "library -> core " : "core -> library ") $2; count[key]++ }
         END { for (key in count) printf "  %5d  %s\n", count[key], key }' | sort -k2

echo
echo "=== kivhal-coresim --replay $capture --fast, kivhal-info on the same root again"
"$tools/kivhal-coresim" --root "$root" --replay "$capture" --fast >"$work/replay.log" 2>&1 &
sim_pid=$!
for _ in $(seq 100); do
    grep -q "replaying" "$work/replay.log" && break
    sleep 0.1
done
"$tools/kivhal-info" --root "$root" --config "$config" --quiet >"$work/replayed.txt"
wait "$sim_pid" || true
sim_pid=""
cat "$work/replay.log"
if diff <(sed -E 's/took [0-9.]+ s/took X s/' "$work/live.txt") \
        <(sed -E 's/took [0-9.]+ s/took X s/' "$work/replayed.txt") >/dev/null; then
    echo "the replayed report is the live one's"
else
    echo "the replayed report differs from the live one:"
    diff "$work/live.txt" "$work/replayed.txt" || true
fi
