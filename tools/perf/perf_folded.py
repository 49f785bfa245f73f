#!/usr/bin/env python3
"""`perf script` output (with call graphs) to folded stacks for flamegraph.py.

    perf script -i perf.data | perf_folded.py > stacks.folded

Each sample becomes "thread;outermost;...;innermost 1"; equal stacks are
counted together. Offsets (+0x..) are dropped so that a function is one frame.
"""
import collections
import re
import sys


def main():
    stacks = collections.Counter()
    frames, thread = [], None
    for line in sys.stdin:
        line = line.rstrip("\n")
        if not line.strip():
            if thread is not None and frames:
                stacks[";".join([thread] + frames[::-1])] += 1
            frames, thread = [], None
            continue
        if not line.startswith((" ", "\t")):
            thread = line.split()[0]
            continue
        parts = line.strip().split(None, 1)
        symbol = parts[1].rsplit(" (", 1)[0] if len(parts) > 1 else "?"
        frames.append(re.sub(r"\+0x[0-9a-f]+$", "", symbol))
    if thread is not None and frames:
        stacks[";".join([thread] + frames[::-1])] += 1
    for stack, count in stacks.items():
        print("%s %d" % (stack, count))


if __name__ == "__main__":
    main()
