#!/usr/bin/env python3
"""Folded stacks (one "frame;frame;... COUNT" per line) to an SVG flame graph.

    flamegraph.py STACKS.folded OUT.svg [--title TEXT] [--min-percent P]

perf_folded.py makes the folded stacks from `perf script`. Widths are
shares of all samples; frames under --min-percent (default 0.3) are left
out. Hovering a frame shows its name and share (the SVG <title>).
"""
import argparse
import html
import re
import zlib

ROW = 16
WIDTH = 1400.0


def read(path):
    root = {"name": "all", "count": 0, "kids": {}}
    for line in open(path):
        line = line.rstrip("\n")
        if not line:
            continue
        stack, count = line.rsplit(" ", 1)
        count = int(count)
        node = root
        node["count"] += count
        for frame in stack.split(";"):
            frame = re.sub(r"\+0x[0-9a-f]+$", "", frame)
            node = node["kids"].setdefault(frame, {"name": frame, "count": 0, "kids": {}})
            node["count"] += count
    return root


def depth(node):
    return 1 + max((depth(k) for k in node["kids"].values()), default=0)


def colour(name):
    h = zlib.crc32(name.encode()) & 0xFFFF
    if name.startswith(("gw::", "HttpServer")):
        return "rgb(%d,%d,%d)" % (230, 120 + h % 60, 40)
    if name.startswith(("NOX", "CGetBy", "CTlv", "CXml", "CCommon")):
        return "rgb(%d,%d,%d)" % (80, 160 + h % 60, 80)
    if name.startswith(("Simulated", "Sqlite", "Statement", "sqlite3")):
        return "rgb(%d,%d,%d)" % (90, 130, 200 + h % 50)
    return "rgb(%d,%d,%d)" % (200 + h % 50, 90 + h % 80, 60)


def draw(node, x, level, total, height, out, minimum):
    width = WIDTH * node["count"] / total
    if node["count"] * 100.0 / total < minimum:
        return
    y = height - (level + 1) * ROW
    share = 100.0 * node["count"] / total
    label = node["name"]
    title = html.escape("%s (%.1f%%, %d samples)" % (label, share, node["count"]))
    chars = int(width / 7)
    text = html.escape(label[:chars - 2] + ".." if len(label) > chars else label) if chars > 3 else ""
    out.append('<g><title>%s</title><rect x="%.1f" y="%d" width="%.1f" height="%d" fill="%s" '
               'rx="2"/><text x="%.1f" y="%d">%s</text></g>' %
               (title, x, y, max(width - 0.5, 0.1), ROW - 1, colour(label), x + 3, y + ROW - 4, text))
    for kid in sorted(node["kids"].values(), key=lambda k: k["name"]):
        draw(kid, x, level + 1, total, height, out, minimum)
        x += WIDTH * kid["count"] / total


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("folded")
    parser.add_argument("svg")
    parser.add_argument("--title", default="")
    parser.add_argument("--min-percent", type=float, default=0.3)
    args = parser.parse_args()
    root = read(args.folded)
    height = (depth(root) + 3) * ROW
    out = ['<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" '
           'font-family="monospace" font-size="11">' % (WIDTH, height),
           '<rect width="100%" height="100%" fill="#fdfdf8"/>',
           '<text x="4" y="14" font-size="13">%s (%d samples)</text>' %
           (html.escape(args.title), root["count"])]
    draw(root, 0.0, 0, root["count"], height, out, args.min_percent)
    out.append("</svg>")
    with open(args.svg, "w") as f:
        f.write("\n".join(out) + "\n")


if __name__ == "__main__":
    main()
