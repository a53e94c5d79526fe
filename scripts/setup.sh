#!/usr/bin/env bash
# Installs the distribution packages the project builds and runs with, when missing.
# Needs root (or sudo); downloads nothing from anywhere else.
set -euo pipefail
packages=(build-essential cmake clang clang-format libsqlite3-dev sqlite3 libprotobuf-dev
    protobuf-compiler rapidjson-dev android-liblog-dev libzydis-dev libzycore-dev googletest
    libgtest-dev libgmock-dev libbenchmark-dev libclang-rt-14-dev llvm libxml2-utils libc++-dev
    libc++abi-dev python3)
missing=()
for p in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi
echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo=sudo
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
