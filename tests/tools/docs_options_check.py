#!/usr/bin/env python3
"""Fails when README.md or docs/ mention an --option that no command accepts.

Every `--option` written in the README or under docs/ must be one that
nox-gateway, nox-backend or nox-catalog lists in its --help, or one of the
other commands the docs show (cmake, valgrind, curl, the project's scripts...),
listed below with the command it belongs to. A misspelt or removed option
in the docs (say --expose-verify-codes) fails the check with its file and line.

usage: docs_options_check.py BIN_DIR SOURCE_DIR
"""
import pathlib
import re
import subprocess
import sys

# Options of commands other than ours that the docs show, and whose they are.
OTHER_COMMANDS = {
    "--build": "cmake", "--target": "cmake", "--install": "cmake", "--prefix": "cmake",
    "--cflags": "pkg-config", "--libs": "pkg-config", "--error-exitcode": "valgrind",
    "--leak-check": "valgrind", "--undefined-only": "nm", "--no-undefined": "ld",
    "--variant": "debootstrap", "--save-dev": "npm", "--cacert": "curl", "--output": "curl",
    "--strict": "tsc", "--module": "tsc", "--moduleResolution": "tsc",
    "--soak": "scripts/load.sh", "--cluster": "scripts/load.sh", "--login-storm": "scripts/load.sh",
    "--events": "scripts/load.sh", "--ratios": "scripts/load.sh", "--hosts": "scripts/run-cluster.sh",
    "--gateway": "tools/api/check.sh", "--exchanges": "tools/api/check.sh",
    "--out": "tools/api/check.sh", "--signal": "systemctl",
}

OPTION = re.compile(r"(?<![\w-])(--[a-zA-Z][a-zA-Z0-9-]*)(?![\w])")


def accepted(bin_dir):
    options = set()
    for command in ("nox-gateway", "nox-backend", "nox-catalog"):
        path = pathlib.Path(bin_dir) / command
        if not path.exists():
            continue
        run = subprocess.run([str(path), "--help"], capture_output=True, text=True, timeout=30)
        options.update(OPTION.findall(run.stdout + run.stderr))
    return options


def main():
    if len(sys.argv) != 3:
        print(__doc__.strip().splitlines()[-1])
        return 2
    bin_dir, source = sys.argv[1], pathlib.Path(sys.argv[2])
    ours = accepted(bin_dir)
    if "--listen" not in ours:
        print(f"could not read nox-gateway --help in {bin_dir}")
        return 1
    files = [source / "README.md"] + sorted((source / "docs").glob("*.md"))
    unknown = []
    seen = 0
    for path in files:
        for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            for option in OPTION.findall(line):
                seen += 1
                if option not in ours and option not in OTHER_COMMANDS:
                    unknown.append(f"{path.relative_to(source)}:{number}: {option}")
    if unknown:
        print("the docs mention options that no command accepts (nox-gateway, nox-backend and "
              "nox-catalog --help, or the other commands listed in this check):")
        print("\n".join("  " + u for u in unknown))
        return 1
    print(f"{seen} options mentioned in {len(files)} files, every one accepted")
    return 0


if __name__ == "__main__":
    sys.exit(main())
