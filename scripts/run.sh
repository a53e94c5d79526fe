#!/usr/bin/env bash
# The main job: sets up a fresh machine, builds everything, lays out a sysroot with the sample
# configuration, starts the supervised host camera service on it and drives it with vxcdb.
#
#   scripts/run.sh           guided session: a short tour of vxcdb commands, then stop
#   scripts/run.sh --keep    start the service and leave it running for your own vxcdb commands
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "${BUILD_DIR:-$src/build}")
mode=${1:-tour}
case "$mode" in
    tour|--keep) ;;
    *) echo "usage: $0 [--keep]" >&2; exit 2 ;;
esac

export BUILD_DIR=$build
"$src/scripts/setup.sh"
"$src/scripts/build.sh"
sysroot=$(realpath -m "${CORVANE_SYSROOT:-$build/sysroot}")
"$src/scripts/make-sysroot.sh" "$sysroot" "$build" >/dev/null
# A fresh start: no databases, probe history or socket from an earlier run.
rm -f "$sysroot"/data/vendor/camera/*
export CORVANE_SYSROOT=$sysroot
export CORVANE_PROP_FILE=${CORVANE_PROP_FILE:-$sysroot/corvane.prop}
vxcdb="$build/bin/vxcdb"
log="$build/camera_service.log"

echo "== Starting the supervised host camera service on $sysroot"
echo "   properties: $CORVANE_PROP_FILE"
echo "   service log: $log"
"$build/bin/corvane_supervisor" -- "$build/bin/corvane_camera_service" --sysroot "$sysroot" \
    >"$log" 2>&1 &
supervisor=$!
stop_service() {
    kill -INT "$supervisor" 2>/dev/null || true
    wait "$supervisor" 2>/dev/null || true
}

# Waits until the debug channel answers (at most ten seconds).
wait_ready() {
    for _ in $(seq 100); do
        if "$vxcdb" --timeout 1 corvane --help >/dev/null 2>&1; then
            return 0
        fi
        sleep 0.1
    done
    echo "the camera service did not come up; its log:" >&2
    tail -30 "$log" >&2
    return 1
}
if ! wait_ready; then
    stop_service
    exit 1
fi

if [ "$mode" = "--keep" ]; then
    cat <<MSG

The camera service is running (supervisor pid $supervisor). In another shell:

    export CORVANE_SYSROOT=$sysroot
    $vxcdb corvane --help
    $vxcdb corvane --inject query
    $vxcdb corvane --inject sensor_i2c_fault
    $vxcdb corvane --inject result
    $vxcdb corvane --inject clear
    CORVANE_SERVICE_LOG=$log $vxcdb --campaign $src/host/samples/campaign.json

The service's log (pipeline, firmware, probes, library log lines): $log
Stop it with: kill -INT $supervisor
MSG
    exit 0
fi
trap stop_service EXIT

run() {
    echo
    echo "\$ vxcdb $*"
    "$vxcdb" "$@" || echo "(exit code $?)"
}
# Shows a command's answer once it contains the expected text (the pipeline hits a fault
# within a few periods), or after three seconds as it stands.
run_until() {
    local expected=$1
    shift
    for _ in $(seq 30); do
        if "$vxcdb" "$@" 2>/dev/null | grep -q -- "$expected"; then
            break
        fi
        sleep 0.1
    done
    run "$@"
}

echo
echo "== A short tour"
run corvane --help
run corvane --inject query
run corvane --inject sensor_i2c_fault
run_until "<executed>" corvane --inject result sensor_i2c_fault
run corvane --inject firmware 0 0 3 3 ecc_error
run_until "0x01" corvane --inject status 0 3 3
run corvane --inject status eeprom_fault
run corvane --inject motion_fault fast
echo
echo "== Restarting the service with signal 1 (the library's reload path)"
echo "   The service dies before it can answer; its supervisor starts it again and the injected"
echo "   group comes back from the hook database."
run corvane --signal 1
wait_ready
run_until "<Successfully hooked>" corvane --inject result motion_fault
run corvane --inject clear
run corvane --inject result
echo
echo "== What the camera service saw"
grep -E '^(supervisor|firmware|probe|pipeline):' "$log" | head -40
echo
echo "== A fault campaign: every sample group and a firmware command, each injected, seen to run,"
echo "   checked against the service log and removed (host/samples/campaign.json)"
junit="$build/campaign-junit.xml"
echo
echo "\$ vxcdb --junit $junit --campaign $src/host/samples/campaign.json"
CORVANE_SERVICE_LOG=$log "$vxcdb" --junit "$junit" --campaign "$src/host/samples/campaign.json" ||
    echo "(exit code $?)"
echo "JUnit report: $junit"
echo
echo "== Tour finished; the service is stopped. Run '$0 --keep' to try vxcdb yourself."
