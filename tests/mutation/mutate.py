#!/usr/bin/python3
"""Runs the manager's tests against small changes to it, and compares what survives with docs/testing.md.

  mutate.py HOW-MANY [JOBS [BUILD]]      HOW-MANY: a number, or all; BUILD: default or guarded

A number takes always the same ones, chosen by the text of each change. Fails when fewer than 95 of 100 are caught (of 500 and more), when one
survives that the page does not explain, and when the page lists one that is caught or does not exist.
"""
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGE = ROOT / "docs" / "testing.md"
LEAST_CAUGHT = 95  # of 100, where there are enough to say so
ENOUGH = 500


def run(*command):
    result = subprocess.run([str(part) for part in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    if result.returncode != 0:
        print(result.stdout[-3000:], file=sys.stderr)
        sys.exit(f"mutate.py: {pathlib.Path(str(command[0])).name} failed")


class Build:
    def __init__(self, name, jobs):
        self.name, self.jobs = name, jobs
        self.folder = ROOT / "build" / "mutate" / name
        run("/usr/bin/python3", ROOT / "tests/mutation/make_mutants.py", ROOT, self.folder / "source", name)
        mutants = json.loads((self.folder / "source/mutants.json").read_text(encoding="utf-8"))
        self.keys = {mutant["number"]: f"{name} {mutant['key']}" for mutant in mutants}
        self.places = {mutant["number"]: mutant["place"] for mutant in mutants}
        self.chosen = []

    def program(self):
        programs = self.folder / "programs"
        if not (programs / "build.ninja").exists():
            run("cmake", "-S", self.folder / "source/tests/mutation", "-B", programs, "-G", "Ninja", "--toolchain",
                ROOT / "cmake/x86.cmake", f"-DVELMORA_GUARDED={'ON' if self.name == 'guarded' else 'OFF'}")
        run("cmake", "--build", programs, "--target", "mutation-runner", "--", f"-j{self.jobs}")
        return programs / "mutation-runner"

    def results(self):
        """What became of each chosen mutant."""
        numbers, results = self.folder / "numbers", self.folder / "results"
        numbers.write_text("\n".join(str(number) for number in self.chosen), encoding="utf-8")
        run(self.program(), numbers, results, self.jobs)
        lines = (line.split() for line in results.read_text(encoding="utf-8").splitlines())
        return {int(number): result for number, result, *_ in lines}


def listed(build):
    """The survivors of a build that the page explains."""
    blocks = re.findall(r"^```survivors\n(.*?)^```", PAGE.read_text(encoding="utf-8"), flags=re.M | re.S)
    return [line for block in blocks for line in block.splitlines() if line.startswith(build.name + " ")]


def report(build, results):
    explained, keys = listed(build), set(build.keys.values())
    survivors = [number for number, result in results.items() if result in ("survived", "unreached")]
    faults = [f"listed in docs/testing.md, but there is no such change: {key}" for key in explained if key not in keys]
    faults += [f"listed twice in docs/testing.md: {key}" for key in sorted(set(explained)) if explained.count(key) > 1]
    for number, result in sorted(results.items()):
        key = build.keys[number]
        if number in survivors and key not in explained:
            faults.append(f"{result}, at {build.places[number]}: {key}")
        if number not in survivors and key in explained:
            faults.append(f"listed in docs/testing.md, but caught: {key}")
    kinds = ("failed", "crashed", "endless", "survived", "unreached")
    print(f"{len(results)} of {len(build.keys)} changes: " +
          ", ".join(f"{sum(result == kind for result in results.values())} {kind}" for kind in kinds))
    caught = len(results) - len(survivors)
    print(f"{caught} of {len(results)} caught: {100 * caught / len(results):.1f} %")
    if len(results) >= ENOUGH and caught * 100 < len(results) * LEAST_CAUGHT:
        faults.append(f"fewer than {LEAST_CAUGHT} % are caught")
    print("\n".join(faults) if faults else "what survives is explained in docs/testing.md")
    return 1 if faults else 0


def main():
    how_many, jobs, name = (sys.argv[1:] + [""] * 3)[:3]
    jobs, name = jobs or str(os.cpu_count()), name or "default"
    if how_many != "all" and not re.fullmatch(r"[1-9]\d{0,5}", how_many):
        sys.exit(f"make mutate: MUTANTS is a number from 1 on, or all, and not '{how_many}'")
    if not re.fullmatch(r"[1-9]\d{0,2}", jobs):
        sys.exit(f"make mutate: JOBS is a number from 1 on, and not '{jobs}'")
    if name not in ("default", "guarded"):
        sys.exit(f"make mutate: BUILD is default or guarded, and not '{name}'")
    build = Build(name, int(jobs))
    order = sorted(build.keys, key=lambda number: hashlib.sha256(build.keys[number].encode()).digest())
    build.chosen = order if how_many == "all" else order[:int(how_many)]
    return report(build, build.results())


sys.exit(main())
