#!/usr/bin/env bash
# The core library must export exactly its three public entry points and nothing else of ours;
# on the host also the ShadowHook API of its inline-hook engine (a library of its own on a device),
# which fault libraries call.
set -euo pipefail
lib=${1:?usage: check_exports.sh LIBRARY}
exported=$(nm -D --defined-only "$lib" | awk '{print $3}' | c++filt | grep -v '^shadowhook_' | sort)
expected=$(printf '%s\n' "CorvaneSystem::Create()" "CorvaneSystem::Destroy(CorvaneSystem*)" \
    "CorvaneSystemGetInstance" | sort)
if [ "$exported" != "$expected" ]; then
    echo "unexpected exports of $lib:"
    diff <(echo "$expected") <(echo "$exported") || true
    exit 1
fi
echo "exports ok: $(echo "$exported" | tr '\n' ' ')"
