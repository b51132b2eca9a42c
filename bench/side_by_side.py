#!/usr/bin/env python3
"""The default and the guarded build on the same workloads, in turns, so that what else the machine does hits both.

side_by_side.py FOLDER GUARDED [--quick]   FOLDER/velmora-bench and GUARDED/velmora-bench; FOLDER/guarded.json, a table
"""

import json
import pathlib
import subprocess
import sys
import tempfile

import report

ROUNDS = 5
ROWS = "^[^s].*/velmora/"  # the manager alone; not the controller in another process


def one_run(program, quick):
    with tempfile.TemporaryDirectory() as folder:
        output = pathlib.Path(folder) / "results.json"
        command = [program, "--sequence", report.HERE / "print-job.txt", "--output", output, "--only", ROWS, "--medians-only"]
        done = subprocess.run([*command, *(["--quick"] if quick else [])], stderr=subprocess.PIPE, text=True)
        if done.returncode != 0:
            sys.exit(f"{program} failed:\n{done.stderr}")
        return json.loads(output.read_text())


def main(arguments):
    quick = "--quick" in arguments
    folders = [a for a in arguments if a != "--quick"]
    if len(folders) != 2:
        print(__doc__, file=sys.stderr)
        return 2
    shortest = {}
    for turn in range(2 * ROUNDS):
        build = ("default", "guarded")[turn % 2]
        print(f"round {turn // 2 + 1} of {ROUNDS}: {build}", file=sys.stderr)
        for row in one_run(pathlib.Path(folders[turn % 2]) / "velmora-bench", quick):
            cell = tuple((key, row.get(key)) for key in ("workload", "occupancy", "size", "path"))
            times = shortest.setdefault(cell, {})
            times[build] = min(row["median_ns"], times.get(build, row["median_ns"]))
    output = pathlib.Path(folders[0]) / "guarded.json"
    output.write_text(json.dumps([{**dict(cell), **times} for cell, times in shortest.items()], indent=1) + "\n")
    print(report.guarded_table(json.loads(output.read_text())))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
