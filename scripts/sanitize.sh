#!/usr/bin/env bash
# Sanitizer builds of the test suite, each in a build directory of its own, without the
# benchmarks:
#
#   scripts/sanitize.sh address   AddressSanitizer + UndefinedBehaviorSanitizer over the whole
#                                 suite, built with clang (build-asan); the normal build uses GCC,
#                                 so this also keeps the project warning-free with clang
#   scripts/sanitize.sh thread    ThreadSanitizer over the tests that run threads against each
#                                 other, built with GCC (build-tsan): clang's TSan runtime must be
#                                 linked into each program, which our libraries (linked with
#                                 --no-undefined) cannot rely on
#
# BUILD_DIR overrides the directory; further arguments go to ctest (e.g. -R '^monitor\.', which
# replaces the thread subset).
# Sanitizer options can be overridden through ASAN_OPTIONS, UBSAN_OPTIONS, LSAN_OPTIONS and
# TSAN_OPTIONS. Suppressions, each with its reason, live in scripts/sanitizers/.
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
mode=${1:-}
shift || true

# The tests where threads meet: the socket server and its connection threads, the message bus
# and its workers, the probe monitor's concurrent saves and bus queries, the hook engine with the
# bus's acknowledgements, the controller's first use from many threads, reports from many threads,
# and the inline-hook engine patching a function that other threads keep calling.
#
# Left out, because ThreadSanitizer cannot run them (both run under the normal and the ASan
# builds; docs/hardening.md has the details):
# - inline-hook tests on functions of libraries loaded at program start (libm, libz): TSan maps
#   the shadow of those libraries' read-only segments onto one shared read-only page, so the
#   engine's stores into their code fault inside TSan. The concurrency cases on the test library,
#   which is loaded with dlopen, stay in.
# - the end-to-end tests: TSan defers a signal that arrives while a thread sits in accept4 (which
#   it does not count as blocking) until the call returns, so the debug server's accepting thread
#   never answers the engine's pause signal and every hook installed over vxcdb times out.
tsan_tests='^(channel|messagecenter|monitor|firmware|hook)\.|^controller\.CorvaneSystemTest\.|^inlinehook\.Targets/HookConcurrencyTest\..*/ih_'
tsan_targets=(test_channel test_messagecenter test_monitor test_firmware test_hook test_controller
    test_inlinehook)

case "$mode" in
    address)
        build=${BUILD_DIR:-$src/build-asan}
        compilers=(clang clang++)
        targets=(all)
        tests=''
        ;;
    thread)
        build=${BUILD_DIR:-$src/build-tsan}
        compilers=(gcc g++)
        targets=("${tsan_targets[@]}")
        tests=$tsan_tests
        ;;
    *)
        echo "usage: $0 address|thread [ctest arguments...]" >&2
        exit 2
        ;;
esac
build=$(realpath -m "$build")
suppressions="$src/scripts/sanitizers"

"$src/scripts/setup.sh"
cmake -S "$src" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER="${compilers[0]}" \
    -DCMAKE_CXX_COMPILER="${compilers[1]}" -DCORVANE_SANITIZE="$mode" -DCORVANE_BUILD_BENCH=OFF \
    >/dev/null
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}"

# Stop at the first report, with the whole story: where the memory came from and went, both
# stacks of a race, both lock orders of a deadlock. Child processes (the camera service, its
# supervisor, vxcdb) inherit the same options.
export ASAN_OPTIONS=${ASAN_OPTIONS:-halt_on_error=1:detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1:check_initialization_order=1:strict_init_order=1:print_suppressions=0}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$suppressions/lsan.supp:print_suppressions=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1:suppressions=$suppressions/ubsan.supp}
# die_after_fork=0: several tests fork a child from a process that already runs threads (the
# child only runs the scenario and exits, as RunInChild documents); TSan would otherwise refuse
# to start threads in such a child.
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1:history_size=4:die_after_fork=0:suppressions=$suppressions/tsan.supp:print_suppressions=0}

cd "$build"
args=(--output-on-failure -j"$(nproc)" --timeout 600)
if [ -n "$tests" ]; then
    args+=(-R "$tests")
fi
ctest "${args[@]}" "$@"
