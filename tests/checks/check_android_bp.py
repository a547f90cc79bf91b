"""Fails when Android.bp and the CMake build disagree on a source file.

Compares, relative to the repository root:
  - the library sources of the cc_defaults "libzem_sdk_defaults" (C++ files
    and .proto files) with the core library's sources in CMake and the
    schemas it generates code from;
  - the C entry points of cc_library_shared "libzem_sdk" with the shared
    library's sources in CMake;
  - the unit tests of cc_test "libzem_sdk_test" with the GoogleTest programs
    that CMake builds, less those that need host-only programs;
  - the cc_fuzz modules' sources with the fuzz programs of fuzz/CMakeLists.txt,
    less those that drive host-only code.

usage: check_android_bp.py ROOT CORE_SOURCES_FILE SDK_SOURCES_FILE TESTS_FILE
"""
import os
import re
import sys

# Tests that start zemd or other host programs, or run on the host binder
# runtime, are named with these prefixes: they have no place in the device
# build.
HOST_ONLY_PREFIXES = ("tests/e2e/", "tests/tools/", "tests/unit/binder_", "tests/checks/")

# Fuzzers of the host binder runtime's wire and of the host tools' decoder
# and JSON output.
HOST_ONLY_FUZZERS = {"binder_wire_fuzzer", "dump_fuzzer", "json_fuzzer"}

root, core_file, sdk_file, tests_file = sys.argv[1:5]


def modules(text):
    """Yields (type, body) for every top-level module of a blueprint file."""
    text = re.sub(r"//[^\n]*", "", text)
    for m in re.finditer(r"(\w+)\s*\{", text):
        if m.start() and text[:m.start()].count("{") != text[:m.start()].count("}"):
            continue
        depth, i = 1, m.end()
        while depth:
            depth += {"{": 1, "}": -1}.get(text[i], 0)
            i += 1
        yield m.group(1), text[m.end():i - 1]


def field_list(body, field):
    m = re.search(r"\b%s\s*:\s*\[(.*?)\]" % field, body, re.S)
    return re.findall(r'"([^"]+)"', m.group(1)) if m else []


def name_of(body):
    m = re.search(r'\bname\s*:\s*"([^"]+)"', body)
    return m.group(1) if m else None


def read_list(path):
    with open(path) as f:
        items = [line.strip() for line in f if line.strip()]
    return {os.path.relpath(p, root) if os.path.isabs(p) else p for p in items}


with open(os.path.join(root, "Android.bp")) as f:
    bp = {name_of(body): (kind, body) for kind, body in modules(f.read())}

failures = []


def compare(what, bp_set, cmake_set):
    only_bp = sorted(bp_set - cmake_set)
    only_cmake = sorted(cmake_set - bp_set)
    if only_bp or only_cmake:
        failures.append("%s differ:\n  only in Android.bp: %s\n  only in CMake: %s"
                        % (what, only_bp or "-", only_cmake or "-"))


defaults = field_list(bp["libzem_sdk_defaults"][1], "srcs")
core = {s for s in read_list(core_file) if not s.startswith("platform/")}
compare("core library sources",
        {s for s in defaults if not s.startswith(":") and not s.endswith(".proto")},
        {s for s in core if s.endswith((".cpp", ".cc", ".c"))})
compare("schemas", {s for s in defaults if s.endswith(".proto")},
        {os.path.join("proto", p) for p in os.listdir(os.path.join(root, "proto"))
         if p.endswith(".proto")})
compare("shared library sources", set(field_list(bp["libzem_sdk"][1], "srcs")),
        {s for s in read_list(sdk_file) if s.endswith(".cpp")})
test_srcs = set(field_list(bp["libzem_sdk_test"][1], "srcs"))
compare("unit tests", {s for s in test_srcs if s.startswith("tests/")},
        {s for s in read_list(tests_file)
         if s.endswith("_test.cpp") and not s.startswith(HOST_ONLY_PREFIXES)})

with open(os.path.join(root, "fuzz", "CMakeLists.txt")) as f:
    cmake_fuzzers = {os.path.join("fuzz", src) for name, src in
                     re.findall(r"^zem_add_fuzzer\((\w+)\s+(\S+?)\)", f.read(), re.M)
                     if name not in HOST_ONLY_FUZZERS}
bp_fuzzers = set()
for kind, body in bp.values():
    if kind == "cc_fuzz":
        bp_fuzzers.update(field_list(body, "srcs"))
compare("fuzzers", bp_fuzzers, cmake_fuzzers)

if failures:
    print("\n".join(failures))
    sys.exit(1)
print("1 passed, 0 failed")
