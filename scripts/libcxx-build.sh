#!/usr/bin/env bash
# Compiles the library's device sources as the device builds do, as far as a Linux host can:
# clang against libc++ (the device's C++ library; the host builds use libstdc++), lite protobuf
# code, no RTTI, -Werror with the warnings Soong turns into errors. Twice: with -std=c++17, which
# Android.bp and android/CMakeLists.txt ask for, and with -std=gnu++20, Soong's default for a
# module without cpp_std, so that the library's own code is ready for either.
#
# Objects only, nothing is linked: the host's protobuf, SQLite and liblog are built against
# libstdc++, so a libc++ link would fail on their std:: types, not on the library. The sources
# are the NDK build's list (scripts/android-sources.py --list ndk): everything Android.bp compiles
# plus the NDK's property and big-data shims. Headers bionic has and glibc lacks come from
# scripts/libcxx-include; the ShadowHook API header is the host engine's, the same declarations.
#
#   scripts/libcxx-build.sh                      both standards
#   LIBCXX_STANDARDS=c++17 scripts/libcxx-build.sh
#   LIBCXX_BUILD_DIR=/tmp/b scripts/libcxx-build.sh   (default build-libcxx)
set -euo pipefail
src=$(cd "$(dirname "$0")/.." && pwd)
out=${LIBCXX_BUILD_DIR:-$src/build-libcxx}
standards=${LIBCXX_STANDARDS:-c++17 gnu++20}
cxx=${LIBCXX_CXX:-clang++}
"$src/scripts/setup.sh"

if ! echo '#include <version>' | "$cxx" -stdlib=libc++ -x c++ -fsyntax-only - 2>/dev/null; then
    echo "$cxx cannot compile against libc++: install libc++-dev and libc++abi-dev" >&2
    exit 1
fi

listing=$(python3 "$src/scripts/android-sources.py" --list ndk)
mapfile -t listed <<<"$listing"
rm -rf "$out/proto"
mkdir -p "$out/proto"
sources=()
for file in "${listed[@]}"; do
    case $file in
    *.proto)
        protoc --cpp_out=lite:"$out/proto" -I "$src/$(dirname "$file")" "$src/$file"
        sources+=("$out/proto/$(basename "${file%.proto}").pb.cc")
        ;;
    *) sources+=("$src/$file") ;;
    esac
done

# Soong's flags for device code that change what compiles: its warnings promoted to errors, no
# RTTI (and protobuf told so), hidden visibility. No optimisation: it adds time, not diagnostics.
flags=(-stdlib=libc++ -fPIC -fexceptions -fno-rtti
    -DGOOGLE_PROTOBUF_NO_RTTI -DRAPIDJSON_HAS_STDSTRING=1
    -fvisibility=hidden -fvisibility-inlines-hidden
    -Wall -Wextra -Werror -Winit-self -Wpointer-arith -Wimplicit-fallthrough
    -Wunreachable-code-loop-increment -Werror=date-time -Werror=int-conversion
    -Werror=string-plus-int -Werror=non-virtual-dtor -Werror=format-security
    -Werror=null-dereference -Werror=xor-used-as-pow
    -I"$src" -I"$src/platform/android/ndk/include" -I"$src/scripts/libcxx-include"
    -I"$src/platform/host/inlinehook/include" -I"$out/proto"
    # Third-party headers are system includes, as in both device builds.
    -isystem /usr/include/android)
printf '"%s"\n' "${flags[@]}" >"$out/flags.rsp"
launcher=()
if command -v ccache >/dev/null; then
    launcher=(ccache)
fi

failed=0
for std in $standards; do
    # "source -o object" triples; xargs compiles them in parallel and fails when any compile did.
    jobs="$out/$std.jobs"
    : >"$jobs"
    for source in "${sources[@]}"; do
        relative=${source#"$out"/}
        object="$out/$std/${relative#"$src"/}.o"
        mkdir -p "$(dirname "$object")"
        printf '%s\0-o\0%s\0' "$source" "$object" >>"$jobs"
    done
    if xargs -0 -n 3 -P "$(nproc)" "${launcher[@]}" "$cxx" "-std=$std" "@$out/flags.rsp" -c \
        <"$jobs"; then
        echo "libc++ -std=$std: ${#sources[@]} files compiled"
    else
        echo "libc++ -std=$std: compile errors above"
        failed=1
    fi
done
exit $failed
