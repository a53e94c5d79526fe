#!/usr/bin/env bash
# Sets up a fresh machine, builds everything and runs the whole test suite with CTest.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
"$src/scripts/setup.sh"
"$src/scripts/build.sh"
cd "${BUILD_DIR:-$src/build}"
ctest --output-on-failure -j"$(nproc)" --timeout 300
