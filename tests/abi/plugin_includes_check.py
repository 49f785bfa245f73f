#!/usr/bin/env python3
"""Fails when a compile command of the plug-in can see the reference host's headers.

The plug-in (src/ucore/) is compiled against include/ only, so that it stays
a drop-in for any host that implements that contract. This reads the build's
compile_commands.json and checks every command of a source file in
src/ucore/: no include path of it may be the reference host's folder host/.

usage: plugin_includes_check.py BUILD_DIR/compile_commands.json SOURCE_DIR
"""
import json
import os
import shlex
import sys


def include_dirs(arguments):
    """Every folder a compile command adds to the include search."""
    flags = ("-I", "-isystem", "-iquote", "-idirafter")
    dirs = []
    i = 0
    while i < len(arguments):
        arg = arguments[i]
        for flag in flags:
            if arg == flag and i + 1 < len(arguments):
                dirs.append(arguments[i + 1])
                i += 1
                break
            if arg.startswith(flag) and len(arg) > len(flag):
                dirs.append(arg[len(flag):])
                break
        i += 1
    return dirs


def main():
    if len(sys.argv) != 3:
        print(__doc__.strip().splitlines()[-1])
        return 2
    database, source = sys.argv[1], os.path.realpath(sys.argv[2])
    plugin = os.path.join(source, "src", "ucore") + os.sep
    host = os.path.join(source, "host")
    with open(database, encoding="utf-8") as f:
        commands = json.load(f)
    checked = 0
    failures = []
    for entry in commands:
        path = os.path.realpath(os.path.join(entry["directory"], entry["file"]))
        if not path.startswith(plugin):
            continue
        checked += 1
        arguments = entry.get("arguments") or shlex.split(entry["command"])
        for folder in include_dirs(arguments):
            if os.path.realpath(os.path.join(entry["directory"], folder)) == host:
                failures.append(f"{os.path.relpath(path, source)}: -I {folder}")
    if checked == 0:
        print(f"no compile command of a plug-in source in {database}")
        return 1
    if failures:
        print("the plug-in is compiled with the reference host's headers in view; it must see "
              "include/ only:")
        for failure in failures:
            print("  " + failure)
        return 1
    print(f"{checked} plug-in compile commands, none sees host/")
    return 0


if __name__ == "__main__":
    sys.exit(main())
