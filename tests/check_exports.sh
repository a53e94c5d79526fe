#!/usr/bin/env bash
# The core library must export exactly its three public entry points and nothing else of ours.
set -euo pipefail
lib=${1:?usage: check_exports.sh LIBRARY}
exported=$(nm -D --defined-only "$lib" | awk '{print $3}' | c++filt | sort)
expected=$(printf '%s\n' "CorvaneSystem::Create()" "CorvaneSystem::Destroy(CorvaneSystem*)" \
    "CorvaneSystemGetInstance" | sort)
if [ "$exported" != "$expected" ]; then
    echo "unexpected exports of $lib:"
    diff <(echo "$expected") <(echo "$exported") || true
    exit 1
fi
echo "exports ok: $(echo "$exported" | tr '\n' ' ')"
