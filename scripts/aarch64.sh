#!/usr/bin/env bash
# Cross-builds the project for aarch64-linux-gnu and runs the whole test suite under qemu-user.
# Installs what is missing first (Debian's cross compiler, arm64 libraries through multiarch,
# qemu-user); needs root (or sudo) for that and downloads nothing but Debian packages.
#   scripts/aarch64.sh              install, configure build-aarch64, build, run ctest
#   AARCH64_BUILD_DIR=<dir>         another build directory
#   CTEST_ARGS="-R '^inlinehook\.'" extra arguments for ctest
#   AARCH64_SKIP_TESTS=1            build only
#   AARCH64_RUN_ALL=1               also the tests left out below
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
build="${AARCH64_BUILD_DIR:-$root/build-aarch64}"

# Native tools (the cross compiler, protoc, qemu) and the arm64 libraries the project links.
native=(g++-aarch64-linux-gnu cmake protobuf-compiler rapidjson-dev qemu-user)
arm64=(libc6-dev:arm64 libstdc++-12-dev:arm64 libsqlite3-dev:arm64 libprotobuf-dev:arm64
    android-liblog-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64 zlib1g-dev:arm64)

sudo=""
[ "$(id -u)" -eq 0 ] || sudo=sudo
missing=()
for p in "${native[@]}" "${arm64[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -ne 0 ]; then
    echo "Installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    if ! dpkg --print-foreign-architectures | grep -qx arm64; then
        $sudo dpkg --add-architecture arm64
    fi
    $sudo apt-get update -qq
    $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# protoc runs natively: its version must match the arm64 runtime the code links against.
host_pb="$(dpkg-query -W -f='${Version}' libprotobuf-dev:arm64)"
protoc_pb="$(dpkg-query -W -f='${Version}' protobuf-compiler)"
if [ "$host_pb" != "$protoc_pb" ]; then
    echo "protobuf-compiler $protoc_pb does not match libprotobuf-dev:arm64 $host_pb" >&2
    exit 1
fi

cmake -S "$root" -B "$build" \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-aarch64-linux-gnu.cmake" \
    -DCORVANE_BUILD_BENCH=OFF
cmake --build "$build" -j"${JOBS:-$(nproc)}"
if [ -n "${AARCH64_SKIP_TESTS:-}" ]; then
    exit 0
fi
# Every test program runs through qemu-aarch64 (CMAKE_CROSSCOMPILING_EMULATOR). Left out, and why:
# - channel.VxcdbTool*, vxcdb.ConfigurationCheck.ExitsZero*, e2e.*, faults.*: they execute built
#   aarch64 programs (vxcdb, the supervisor and the host camera service) as child processes. qemu-user emulates only the process it starts; the
#   kernel runs another aarch64 program only through binfmt_misc (qemu-user-binfmt), so they run
#   where binfmt_misc has qemu-aarch64 registered.
# - load.*: it counts a process's threads and descriptors in /proc, which under qemu-user are the
#   emulator's own (it keeps threads and descriptors of its own that come and go), so the counts
#   never settle. The idle-peer test of the socket server counts them the same way.
# - channel.SocketServer.ThreadThatCannotStart*: it limits the address space so that no thread
#   stack fits; under qemu-user that limit applies to the emulator, whose own mappings decide
#   what fits. The accept failures it then provokes are left out with it.
exclude='^load\.|^channel\.SocketServer\.(IdlePeers|ThreadThatCannotStart)'
if [ ! -e /proc/sys/fs/binfmt_misc/qemu-aarch64 ]; then
    exclude="$exclude|^channel\.VxcdbTool|^vxcdb\.ConfigurationCheck\.ExitsZero|^e2e\.|^faults\."
fi
[ -z "${AARCH64_RUN_ALL:-}" ] || exclude='^$'
eval "ctest --test-dir \"$build\" --output-on-failure -j\"${JOBS:-$(nproc)}\" -E \"\$exclude\" ${CTEST_ARGS:-}"
