# Sourced by the scripts that run kivhal-coresim: a temporary work directory
# with a device root in it ($work, $root), and stop_sim, which ends the
# simulator started in the background as $sim_pid. Both go on exit.
work=$(mktemp -d)
root="$work/root"
mkdir "$root"
sim_pid=""
stop_sim() {
    if [ -n "$sim_pid" ]; then
        kill -TERM "$sim_pid" 2>/dev/null || true
        wait "$sim_pid" 2>/dev/null || true
        sim_pid=""
    fi
}
trap 'stop_sim; rm -rf "$work"' EXIT
# Waits up to 10 s for the simulator's log ($work/coresim.log) to say it serves.
wait_sim_serving() {
    for _ in $(seq 100); do
        grep -q "serving" "$work/coresim.log" && return 0
        sleep 0.1
    done
}
