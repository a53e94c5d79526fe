#!/usr/bin/env python3
"""Keeps the three builds of the library compiling the same files.

The host build (CMakeLists.txt) finds its sources by globbing; the vendor build (Android.bp) and
the NDK build (android/CMakeLists.txt) list theirs one by one. This script configures the host
build into a scratch directory, asks CMake (its file API) which files it compiles into the
library, and checks that each device build lists exactly those files, apart from the platform
seam: platform/host/ is the host's and is listed nowhere on a device, platform/android/ is the
device's own.

    scripts/android-sources.py               check; one line per file missing or extra
    scripts/android-sources.py --list ndk    print the NDK build's files (the libc++ check build
                                             compiles these)
"""

import argparse
import glob
import json
import os
import re
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LIBRARY_TARGET = "corvanesystem_core"
HOST_SEAM = "platform/host/"
DEVICE_SEAM = "platform/android/"
SOURCE_SUFFIXES = (".cpp", ".cc", ".c", ".proto")


class ListError(Exception):
    pass


def host_library_sources(root):
    """Files the host build compiles into the library (targets it links statically included),
    relative to root; generated protobuf code is reported as its .proto file."""
    with tempfile.TemporaryDirectory(prefix="android-sources-") as build:
        query = os.path.join(build, ".cmake", "api", "v1", "query")
        os.makedirs(query)
        open(os.path.join(query, "codemodel-v2"), "w").close()
        configure = subprocess.run(
            ["cmake", "-S", root, "-B", build, "-DCORVANE_BUILD_TESTS=OFF",
             "-DCORVANE_BUILD_BENCH=OFF"],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        if configure.returncode != 0:
            raise ListError("configuring the host build failed:\n" + configure.stdout)
        reply = os.path.join(build, ".cmake", "api", "v1", "reply")
        codemodel = load_json(glob.glob(os.path.join(reply, "codemodel-v2-*.json"))[0])
        targets = {}
        for entry in codemodel["configurations"][0]["targets"]:
            targets[entry["id"]] = load_json(os.path.join(reply, entry["jsonFile"]))
        library = [t for t in targets.values() if t["name"] == LIBRARY_TARGET]
        if not library:
            raise ListError("the host build has no target " + LIBRARY_TARGET)

        sources = set()
        pending, seen = [library[0]], set()
        while pending:
            target = pending.pop()
            if target["id"] in seen:
                continue
            seen.add(target["id"])
            for source in target.get("sources", []):
                if "compileGroupIndex" in source:
                    sources.add(source_name(root, build, source))
            for dependency in target.get("dependencies", []):
                linked = targets.get(dependency["id"])
                if linked and linked["type"] in ("STATIC_LIBRARY", "OBJECT_LIBRARY"):
                    pending.append(linked)
        return sources


def source_name(root, build, source):
    path = source["path"]
    if not source.get("isGenerated"):
        return os.path.relpath(os.path.join(root, path), root)
    name = os.path.basename(path)
    if not name.endswith(".pb.cc"):
        raise ListError("the host library compiles generated code not from a .proto: " + path)
    proto = glob.glob(os.path.join(root, "**", name[: -len(".pb.cc")] + ".proto"),
                      recursive=True)
    proto = [p for p in proto if not p.startswith(build)]
    if len(proto) != 1:
        raise ListError("cannot tell which .proto file generates " + path)
    return os.path.relpath(proto[0], root)


def load_json(path):
    with open(path) as f:
        return json.load(f)


def strip_comments(text, line_comment):
    text = re.sub(r"/\*.*?\*/", "", text, flags=re.S) if line_comment == "//" else text
    return "\n".join(re.sub(re.escape(line_comment) + ".*", "", line)
                     for line in text.splitlines())


def blocks(text, kind):
    """The bodies of the Blueprint modules of the given kind, e.g. blocks(text, "filegroup")."""
    for match in re.finditer(r"\b" + kind + r"\s*\{", text):
        depth, start = 1, match.end()
        for index in range(start, len(text)):
            depth += {"{": 1, "}": -1}.get(text[index], 0)
            if depth == 0:
                yield text[start:index]
                break


def property_strings(body, name):
    match = re.search(r"\b" + name + r"\s*:\s*\[(.*?)\]", body, flags=re.S)
    return re.findall(r'"([^"]*)"', match.group(1)) if match else []


def soong_sources(path, module_name):
    text = strip_comments(open(path).read(), "//")
    filegroups = {}
    for body in blocks(text, "filegroup"):
        name = re.search(r'\bname\s*:\s*"([^"]+)"', body)
        if name:
            filegroups[name.group(1)] = property_strings(body, "srcs")
    for body in blocks(text, "cc_library_shared"):
        if re.search(r'\bname\s*:\s*"' + re.escape(module_name) + '"', body):
            listed = []
            for entry in property_strings(body, "srcs"):
                if entry.startswith(":"):
                    if entry[1:] not in filegroups:
                        raise ListError(f"{path}: no filegroup {entry[1:]} in this file")
                    listed += filegroups[entry[1:]]
                else:
                    listed.append(entry)
            return listed
    raise ListError(f"{path}: no cc_library_shared named {module_name}")


def cmake_sources(path):
    text = strip_comments(open(path).read(), "#")
    if re.search(r"file\s*\(\s*GLOB", text):
        raise ListError(f"{path}: lists its sources with a glob; list them one by one")
    return re.findall(r"(?<![\w/.${}-])((?:[\w.+-]+/)+[\w.+-]+(?:" +
                      "|".join(re.escape(s) for s in SOURCE_SUFFIXES) + r"))\b", text)


def device_lists(root):
    return {
        "Android.bp": soong_sources(os.path.join(root, "Android.bp"),
                                    "com.halvern.corvanesystem.core"),
        "android/CMakeLists.txt": cmake_sources(os.path.join(root, "android", "CMakeLists.txt")),
    }


def problems(root, host, lists):
    """One message per disagreement between the host library and a device build's list."""
    found = []
    shared = {f for f in host if not f.startswith(HOST_SEAM)}
    for build_file, listed in lists.items():
        listed_set = set()
        for entry in listed:
            if any(c in entry for c in "*?["):
                found.append(f"{build_file}: lists a glob ({entry}); list the files one by one")
            elif not os.path.isfile(os.path.join(root, entry)):
                found.append(f"{build_file}: lists {entry}, which does not exist")
            else:
                listed_set.add(entry)
        for entry in sorted({e for e in listed if listed.count(e) > 1}):
            found.append(f"{build_file}: lists {entry} twice")
        for missing in sorted(shared - listed_set):
            found.append(f"{build_file}: missing {missing} (the host build compiles it into the "
                         "library)")
        for extra in sorted(listed_set - shared):
            if extra.startswith(HOST_SEAM):
                found.append(f"{build_file}: lists {extra}, which is host-only")
            elif not extra.startswith(DEVICE_SEAM):
                found.append(f"{build_file}: lists {extra}, which the host build does not "
                             "compile into the library")
    device_files = set().union(*lists.values())
    for path in sorted(glob.glob(os.path.join(root, DEVICE_SEAM, "**", "*"), recursive=True)):
        relative = os.path.relpath(path, root)
        if relative.endswith(SOURCE_SUFFIXES) and relative not in device_files:
            found.append(f"{relative}: compiled by neither Android.bp nor android/CMakeLists.txt")
    return found


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--list", choices=["ndk", "soong"],
                        help="print one build's files instead of checking")
    parser.add_argument("--root", default=ROOT, help=argparse.SUPPRESS)
    args = parser.parse_args()
    root = os.path.abspath(args.root)
    try:
        lists = device_lists(root)
        if args.list:
            name = "android/CMakeLists.txt" if args.list == "ndk" else "Android.bp"
            print("\n".join(lists[name]))
            return 0
        host = host_library_sources(root)
        found = problems(root, host, lists)
    except ListError as error:
        print(error, file=sys.stderr)
        return 2
    for line in found:
        print(line)
    if found:
        print(f"{len(found)} difference(s) between the host library and the device builds")
        return 1
    shared = len([f for f in host if not f.startswith(HOST_SEAM)])
    print(f"Android.bp and android/CMakeLists.txt list the {shared} files the host build "
          "compiles into the library, plus their platform/android/ seam")
    return 0


if __name__ == "__main__":
    sys.exit(main())
