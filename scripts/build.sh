#!/usr/bin/env bash
# Configures and builds into BUILD_DIR (default: build). Extra arguments go to cmake.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD_DIR:-$src/build}
cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=${BUILD_TYPE:-RelWithDebInfo} "$@" >/dev/null
cmake --build "$build" -j"$(nproc)"
