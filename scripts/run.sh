#!/usr/bin/env bash
# Sets up a fresh machine, builds everything, lays out a sysroot with the sample configuration
# and starts the host camera service on it.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
build=$(realpath -m "${BUILD_DIR:-$src/build}")
export BUILD_DIR=$build
"$src/scripts/setup.sh"
"$src/scripts/build.sh"
sysroot=$(realpath -m "${CORVANE_SYSROOT:-$build/sysroot}")
"$src/scripts/make-sysroot.sh" "$sysroot" "$build"
export CORVANE_SYSROOT=$sysroot
export CORVANE_PROP_FILE=${CORVANE_PROP_FILE:-$sysroot/corvane.prop}
echo "== Starting the host camera service on $sysroot (properties: $CORVANE_PROP_FILE)"
exec "$build/bin/corvane_camera_service" --sysroot "$sysroot" --once
