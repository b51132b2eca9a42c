#!/usr/bin/env python3
"""Plot of a soak: free memory and its longest run over the week, for each segment and build.

soak_plot.py DEFAULT.csv GUARDED.csv OUTPUT.svg        rows of velmora-soak: hour, then total, free, longest run of each segment
"""
import sys

SEGMENTS = ["PAGE: bands of pages", "LIST: what pages are drawn with", "HEAP: what has no room in PAGE"]
BUILDS = [("default", "#1f4e9c"), ("guarded", "#c1272d")]
WIDTH, LEFT, PANEL, GAP, TOP = 860, 60, 150, 46, 62
PLOT = WIDTH - LEFT - 20


def read(path):
    with open(path) as file:
        return [[int(value) for value in line.split(",")] for line in file]


def line(points, colour, more=""):
    text = " ".join(f"{x:.1f},{y:.1f}" for x, y in points)
    return f'<polyline points="{text}" fill="none" stroke="{colour}" stroke-width="1.3"{more}/>'


def label(x, y, text, anchor="start", more=""):
    return f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}"{more}>{text}</text>'


def panel(index, samples, hours):
    top = TOP + index * (PANEL + GAP)
    total = max(rows[0][1 + 3 * index] for rows in samples.values() if rows)
    parts = [label(LEFT, top - 8, SEGMENTS[index], more=' font-weight="bold"')]

    def y(value):
        return top + PANEL * (1 - value / total)

    for quarter in range(5):
        at = y(total * quarter / 4)
        parts.append(f'<line x1="{LEFT}" x2="{LEFT + PLOT}" y1="{at:.1f}" y2="{at:.1f}" stroke="#ddd"/>')
        parts.append(label(LEFT - 6, at + 4, f"{total * quarter / 4 / 2**20:.2g} MiB" if quarter else "0", "end"))
    for day in range(0, hours // 24 + 1):
        at = LEFT + PLOT * day * 24 / hours
        parts.append(f'<line x1="{at:.1f}" x2="{at:.1f}" y1="{top}" y2="{top + PANEL}" stroke="#ddd"/>')
        if day * 24 < hours:
            parts.append(label(at + 3, top + PANEL + 14, f"day {day + 1}"))
    for name, colour in BUILDS:
        rows = samples[name]
        for column, more in ((2, ' stroke-opacity="0.35"'), (3, "")):
            points = [(LEFT + PLOT * row[0] / hours, y(row[column + 3 * index])) for row in rows]
            parts.append(line(points, colour, more))
    return parts


def main():
    if len(sys.argv) != 4:
        sys.exit(__doc__)
    samples = {name: read(path) for (name, _), path in zip(BUILDS, sys.argv[1:3])}
    hours = max(24, max((rows[-1][0] for rows in samples.values() if rows), default=24))
    height = TOP + 3 * (PANEL + GAP)
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" font-family="sans-serif" font-size="11">',
        f'<rect width="{WIDTH}" height="{height}" fill="white"/>',
        label(LEFT, 20, "A week of print jobs: the longest free run (dark) and all free memory (light), each hour", more=' font-size="13"'),
    ]
    for i, (name, colour) in enumerate(BUILDS):
        parts.append(f'<rect x="{LEFT + i * 130}" y="29" width="18" height="3" fill="{colour}"/>')
        parts.append(label(LEFT + 24 + i * 130, 35, f"{name} build"))
    for index in range(len(SEGMENTS)):
        parts += panel(index, samples, hours)
    parts.append("</svg>\n")
    with open(sys.argv[3], "w") as file:
        file.write("\n".join(parts))


main()
