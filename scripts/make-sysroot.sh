#!/usr/bin/env bash
# Lays out a device-shaped directory tree for running the library on a host.
#   make-sysroot.sh SYSROOT BUILD_DIR
# Copies every shared library of BUILD_DIR/lib into vendor/lib64 and the sample configuration
# into odm/etc/camera. Existing data under data/vendor/camera is kept.
set -euo pipefail
sysroot=${1:?usage: make-sysroot.sh SYSROOT BUILD_DIR}
build=${2:?usage: make-sysroot.sh SYSROOT BUILD_DIR}
src=$(cd "$(dirname "$0")/.." && pwd)

mkdir -p "$sysroot"/{odm/etc/camera,data/vendor/camera,vendor/lib64,sys/module/camera/parameters}
for lib in "$build"/lib/*.so; do
    [ -e "$lib" ] && install -m 0755 "$lib" "$sysroot/vendor/lib64/"
done
if [ -d "$src/host/samples/etc" ]; then
    cp -f "$src"/host/samples/etc/* "$sysroot/odm/etc/camera/"
fi
if [ -f "$src/host/samples/corvane.prop" ]; then
    cp -f "$src/host/samples/corvane.prop" "$sysroot/corvane.prop"
fi
param="$sysroot/sys/module/camera/parameters/cam_cci_io_protect"
[ -f "$param" ] || printf 0 >"$param"
echo "sysroot ready: $sysroot"
