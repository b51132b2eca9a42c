#!/usr/bin/env python3
"""Tables, checks and the plot of a benchmark run.

report.py FOLDER               tables on the terminal, FOLDER/times.svg, from FOLDER/results.json
report.py FOLDER --docs DOCS   puts the run into DOCS/performance.md and DOCS/performance.svg
"""

import json
import math
import pathlib
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
CONTENDERS = ["velmora", "velmora-walk", "stack", "boost-rbtree", "pmr-pool", "glibc", "mimalloc", "jemalloc", "socket-pair"]
COLOURS = dict(zip(CONTENDERS, ["#c1272d", "#e8888c", "#888888", "#1f4e9c", "#2e8b57", "#8a5a9e", "#d98e04", "#3aa6b9", "#888888"]))
TITLES = {
    "print-job": "Print job: one allocation or release",
    "churn": "Churn: one allocation or release",
    "comb": "Comb: one allocation or release at the far end",
    "cleanup": "Clean-up: all runs of one owner",
    "device": "Device: one allocation or release",
    "socket": "Controller in another process: one allocation or release",
}


def time_text(ns):
    if ns is None:
        return "-"
    for limit, divisor, unit in ((1e4, 1, "ns"), (1e7, 1e3, "us"), (math.inf, 1e6, "ms")):
        if ns < limit:
            value = ns / divisor
            return f"{value:.1f} {unit}" if value < 100 else f"{value:.0f} {unit}"
    return "-"


def ratio_text(value):
    return "-" if value is None else f"{value:.2f}" if value < 100 else f"{value:.0f}"


class Run:
    def __init__(self, results):
        self.results = results

    def rows(self, **wanted):
        return [r for r in self.results if all(r.get(key) == value for key, value in wanted.items())]

    def median(self, contender, **wanted):
        rows = self.rows(contender=contender, **wanted)
        return rows[0]["median_ns"] if rows else None

    def cells(self, workload):
        """The workload's sizes (and occupancies, paths), in order."""
        cells = []
        for row in self.rows(workload=workload):
            cell = {key: row.get(key) for key in ("occupancy", "size", "path")}
            if cell not in cells:
                cells.append(cell)
        return cells

    def workloads(self):
        return [name for name in TITLES if self.rows(workload=name)]


def cell_text(cell):
    text = str(cell["size"])
    if cell["occupancy"] is not None:
        text = f"{cell['occupancy']} % of {text}"
    return text if not cell["path"] else cell["path"]


def lay_out(rows):
    """Text columns; the first two to the left, the others to the right."""
    widths = [max(len(row[i]) for row in rows if row) for i in range(len(rows[0]))]
    lines = []
    for row in rows:
        lines.append("  ".join(t.ljust(w) if i < 2 else t.rjust(w) for i, (t, w) in enumerate(zip(row, widths))).rstrip())
    return "\n".join(lines)


def terminal_table(run, workload):
    head = ["", "contender", "median", "of Boost's", "99.9 %", "worst", "operations/s", "largest run", "no room", "lock held"]
    rows = [head]
    for cell in run.cells(workload):
        boost = run.median("boost-rbtree", workload=workload, **cell)
        for i, r in enumerate(run.rows(workload=workload, **cell)):
            rows.append([
                cell_text(cell) if i == 0 else "", r["contender"], time_text(r["median_ns"]),
                ratio_text(r["median_ns"] / boost if boost else None), time_text(r["p999_ns"]), time_text(r["worst_ns"]),
                f"{r['ops_per_s']:,}", ratio_text(r["largest_run_ratio"]), str(r["failed"]) if r["failed"] else "",
                time_text(r["lock_ns"]) if r["lock_ns"] is not None else "",
            ])
        rows.append([])
    return f"{TITLES[workload]}\n{lay_out(rows)}"


# What the index is for ------------------------------------------------------------------------------


def checks(run):
    """(what, figure, goal, reached) of the run; what was not measured is left out."""
    found = []

    def check(what, figure, goal, text=ratio_text):
        if figure is not None:
            found.append((what, text(figure), f"{goal:g}", figure <= goal))

    def worst_ratio(cells, against, workload):
        ratios = []
        for cell in cells:
            own, other = run.median("velmora", workload=workload, **cell), run.median(against, workload=workload, **cell)
            if own is not None and other:
                ratios.append(own / other)
        return max(ratios) if ratios else None

    few, many = (run.median("velmora", workload="comb", size=size) for size in (10, 100000))
    if few and many:
        check("time at 100,000 free runs over time at 10", many / few, 8)
    for workload in ("churn", "comb"):
        cells = run.cells(workload)
        for low, high, goal in ((10, 999, 1), (1000, 10000, 0.5), (100000, 100000, 0.7)):
            chosen = [c for c in cells if low <= c["size"] <= high]
            sizes = f"{low:,}" if low == high else f"{low:,} to {high:,}"
            check(f"{workload}, size {sizes}: highest median over Boost's", worst_ratio(chosen, "boost-rbtree", workload), goal)
    check("comb, up to 8 free runs: highest median over the walk's",
          worst_ratio([c for c in run.cells("comb") if c["size"] <= 8], "velmora-walk", "comb"), 1.1)
    for r in run.rows(workload="comb", size=100000, contender="velmora"):
        check("comb, 100,000 free runs: worst time over median", r["worst_ns"] / r["median_ns"], 20)
    own, walk = (run.median(c, workload="cleanup") for c in ("velmora", "velmora-walk"))
    if own and walk:
        check("clean-up of 1,000 runs: time over the walk's", own / walk, 0.1)
    own, trip = (run.median(c, workload="socket") for c in ("velmora", "socket-pair"))
    if own and trip:
        check("socket: command over the round trip of a socket pair", own / trip, 5)
    own = run.median("velmora", workload="print-job")
    others = [r["median_ns"] for r in run.rows(workload="print-job") if not r["contender"].startswith("velmora")]
    if own and others:
        check("print job: median over the best of the others", own / min(others), 1)
    return found


def checks_text(run):
    rows = [["", "", "measured", "goal"]]
    rows += [["reached" if ok else "NOT YET", what, figure, goal] for what, figure, goal, ok in checks(run)]
    return "Goals\n" + lay_out(rows)


# The guarded build ----------------------------------------------------------------------------------


def guarded_rows(cells):
    """Rows of a table: what, both times, their ratio, its goal."""
    rows = [["guarded build", "default", "guarded", "ratio", "goal", ""]]
    for cell in cells:
        goal = 1.2 if cell["size"] >= 1000 else 1.5
        ratio = cell["guarded"] / cell["default"]
        rows.append([f"{cell['workload']}, {cell_text(cell)}", time_text(cell["default"]), time_text(cell["guarded"]),
                     ratio_text(ratio), f"{goal:g}", "reached" if round(ratio, 2) <= goal else "not reached"])
    return rows


def guarded_table(cells):
    return "Default and guarded build\n" + lay_out(guarded_rows(cells))


# Plot -----------------------------------------------------------------------------------------------


def plot(run):
    """Time of one operation against the number of free runs, both axes logarithmic."""
    left, top, width, height = 70, 40, 560, 360
    series = {}
    for contender in CONTENDERS:
        points = sorted((r["size"], r["median_ns"]) for r in run.rows(workload="comb", contender=contender))
        if points:
            series[contender] = points
    if not series:
        return None
    sizes = [size for points in series.values() for size, _ in points]
    times = [max(time, 1) for points in series.values() for _, time in points]
    x_low, x_high = math.log10(min(sizes)), math.log10(max(sizes))
    y_low, y_high = math.floor(math.log10(min(times))), math.ceil(math.log10(max(times)))

    def x(size):
        return left + width * (math.log10(size) - x_low) / ((x_high - x_low) or 1)

    def y(time):
        return top + height * (1 - (math.log10(max(time, 1)) - y_low) / ((y_high - y_low) or 1))

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 780 470" font-family="sans-serif" font-size="13">',
           '<rect width="780" height="470" fill="white"/>',
           f'<text x="{left}" y="22" font-size="15">One allocation or release, by the number of free runs (median)</text>']
    for power in range(y_low, y_high + 1):
        out.append(f'<line x1="{left}" x2="{left + width}" y1="{y(10**power):.1f}" y2="{y(10**power):.1f}" stroke="#ddd"/>')
        out.append(f'<text x="{left - 8}" y="{y(10**power) + 4:.1f}" text-anchor="end">{axis_time(10**power)}</text>')
    for power in range(math.ceil(x_low), math.floor(x_high) + 1):
        out.append(f'<line x1="{x(10**power):.1f}" x2="{x(10**power):.1f}" y1="{top}" y2="{top + height}" stroke="#ddd"/>')
        out.append(f'<text x="{x(10**power):.1f}" y="{top + height + 20}" text-anchor="middle">{10**power:,}</text>')
    out.append(f'<text x="{left + width / 2}" y="{top + height + 42}" text-anchor="middle">free runs</text>')
    # Names beside the ends of the lines, kept apart.
    labels = sorted((y(points[-1][1]), contender) for contender, points in series.items())
    places = []
    for place, contender in labels:
        places.append((max(place, places[-1][0] + 16) if places else place, contender))
    excess = max(0, places[-1][0] - (top + height))
    for contender, points in series.items():
        path = " ".join(f"{x(size):.1f},{y(time):.1f}" for size, time in points)
        thick = 3 if contender == "velmora" else 1.8
        out.append(f'<polyline points="{path}" fill="none" stroke="{COLOURS[contender]}" stroke-width="{thick}"/>')
        out += [f'<circle cx="{x(size):.1f}" cy="{y(time):.1f}" r="3" fill="{COLOURS[contender]}"/>' for size, time in points]
    for place, contender in places:
        out.append(f'<text x="{left + width + 12}" y="{place + 4 - excess:.1f}" fill="{COLOURS[contender]}">{contender}</text>')
    return "\n".join(out + ["</svg>"]) + "\n"


def axis_time(ns):
    return f"{ns:g} ns" if ns < 1e3 else f"{ns / 1e3:g} us" if ns < 1e6 else f"{ns / 1e6:g} ms"


# Documentation --------------------------------------------------------------------------------------


def first_line(command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=True).stdout.splitlines()[0].strip()
    except (OSError, subprocess.CalledProcessError, IndexError):
        return "unknown"


def machine(folder):
    info = {}
    for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines():
        key, _, value = line.partition(":")
        info.setdefault(key.strip(), value.strip())
    caches = subprocess.run(["lscpu", "-B", "--caches=NAME,ONE-SIZE"], capture_output=True, text=True).stdout.split("\n")[1:]
    sizes = ", ".join(f"{name} {int(size) >> 10} KiB" for name, size in (line.split() for line in caches if line.strip()))
    versions = (folder / "packages" / "versions").read_text().splitlines() if (folder / "packages" / "versions").exists() else []
    versions = [v for v in versions if not v.startswith(("libpfm", "libbenchmark-dev"))]
    boost = first_line(["dpkg-query", "-W", "-f", "${Version}", "libboost-dev"])
    virtual = " (virtual machine, shared)" if "hypervisor" in info.get("flags", "").split() else ""
    count = sum(1 for line in pathlib.Path("/proc/cpuinfo").read_text().splitlines() if line.startswith("processor"))
    return [
        f"processor: {info.get('model name', 'unknown')}, {count} cores{virtual}; {sizes}",
        f"system: {first_line(['uname', '-sr'])}, {first_line(['g++-12', '--version'])}, 32-bit x86, -O2",
        f"libraries: {', '.join(versions)}, libboost-dev {boost}, glibc {first_line(['ldd', '--version']).split()[-1]}",
    ]


def markdown(rows):
    head, *body = rows
    lines = ["| " + " | ".join(head) + " |", "| " + " | ".join("---" if i == 0 else "---:" for i in range(len(head))) + " |"]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in body])


def medians(run, workload):
    contenders = [c for c in CONTENDERS if run.rows(workload=workload, contender=c)]
    rows = [["median", *contenders]]
    for cell in run.cells(workload):
        rows.append([cell_text(cell), *(time_text(run.median(c, workload=workload, **cell)) for c in contenders)])
    return markdown(rows)


def details(run, workload):
    rows = [["", "contender", "99.9 %", "worst", "operations/s", "largest run", "no room"]]
    for cell in run.cells(workload):
        for i, r in enumerate(run.rows(workload=workload, **cell)):
            rows.append([cell_text(cell) if i == 0 else "", r["contender"], time_text(r["p999_ns"]), time_text(r["worst_ns"]),
                         f"{r['ops_per_s']:,}", ratio_text(r["largest_run_ratio"]), str(r["failed"] or "")])
    return f"<details><summary>percentiles, rates, fragmentation</summary>\n\n{markdown(rows)}\n\n</details>"


def lock_table(run):
    rows = [["longest time that a lock was held", "velmora-walk", "velmora"]]
    for workload in run.workloads():
        for cell in run.cells(workload):
            held = {r["contender"]: r["lock_ns"] for r in run.rows(workload=workload, **cell)}
            if cell["path"] in (None, "direct") and held.get("velmora") is not None:
                rows.append([f"{workload}, {cell_text(cell)}", time_text(held.get("velmora-walk")), time_text(held["velmora"])])
    return markdown(rows)


def put_between(page, begin, end, text):
    before, _, rest = page.read_text().partition(begin)
    _, _, after = rest.partition(end)
    page.write_text(before + begin + "\n" + text + "\n\n" + end + after)


def document(run, folder, docs):
    parts = ["\n".join("- " + line for line in machine(folder)), "### Goals",
             markdown([["", "measured", "goal", ""]] + [[what, figure, "at most " + goal, "reached" if ok else "not reached"]
                                                       for what, figure, goal, ok in checks(run)]),
             "![time against the number of free runs](performance.svg)"]
    for workload in run.workloads():
        parts += [f"### {TITLES[workload]}", medians(run, workload), details(run, workload)]
    parts += ["### Interrupts off", lock_table(run)]
    page = docs / "performance.md"
    put_between(page, "<!-- run -->\n", "<!-- end of run -->", "\n\n".join(parts))
    (docs / "performance.svg").write_text(plot(run))


def document_guarded(folder, docs):
    if (folder / "guarded.json").exists():
        put_between(docs / "performance.md", "<!-- guarded run -->\n", "<!-- end of guarded run -->",
                    markdown(guarded_rows(json.loads((folder / "guarded.json").read_text()))))


def main(arguments):
    if len(arguments) not in (1, 3) or (len(arguments) == 3 and arguments[1] != "--docs"):
        print(__doc__, file=sys.stderr)
        return 2
    folder = pathlib.Path(arguments[0])
    if len(arguments) == 3:
        document_guarded(folder, pathlib.Path(arguments[2]))
        if not (folder / "results.json").exists():
            return 0
    run = Run(json.loads((folder / "results.json").read_text()))
    if len(arguments) == 3:
        document(run, folder, pathlib.Path(arguments[2]))
        return 0
    for workload in run.workloads():
        print(terminal_table(run, workload))
    print(checks_text(run))
    drawing = plot(run)
    if drawing:
        (folder / "times.svg").write_text(drawing)
    print(f"\n{folder / 'results.json'}, {folder / 'times.svg'}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
