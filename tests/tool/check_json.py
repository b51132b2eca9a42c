#!/usr/bin/env python3
"""The listings for programs are as docs/json.md describes them: each section's command is run on a device, and every field
that is printed has its row and its type, every row a field somewhere.

check_json.py DEVICE PAGE COMMAND...    the device has a manager that is loaded; the command that starts velmora-mm
"""
import json
import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

SETUP = ["start --again", "create LIST --bytes 64K", "create PAGE --bytes 1M --owner-bits 8", "create STCK --bytes 64K --discipline stack",
         "create UEV --type fixed", "create HEAP --type heap", "alloc PAGE 4K --owner 3"]
RECORDING = """# velmora-mm recording 1
load "95000000-9e000000"
table
start
create name=BAND type=float kind=list bytes=1M block=4K map=8 lock=yes
malloc segment=BAND bytes=64K owner=1 -> $a
free $a
# end of recording
"""
# What comes before a section's command, and the status with which that ends.
BEFORE = {"verify": (["fill LIST 12 0xff --force"], 1)} # a free run's header
# What JSON has for each word of the page.
TYPES = {"string": str, "number": (int, float), "boolean": bool, "object": dict, "null": type(None)}


def sections(page):
    """Name, version, command and {path: types} of each section."""
    for text in page.split("\n## ")[1:]:
        heading = re.match(r"velmora-mm ([a-z-]+), version (\d+)\n", text)
        if not heading:
            continue
        command = re.search(r"^`(velmora-mm [^`]+)`$", text, re.MULTILINE)
        rows = dict(re.findall(r"^\| `([^`]+)` \| ([a-z ]+) \|", text, re.MULTILINE))
        yield heading[1], int(heading[2]), command and command[1], rows


def fields(value, path=""):
    """Every field below a value, with its path; the list that holds it has none of its own."""
    if isinstance(value, dict):
        for name, below in value.items():
            where = f"{path}.{name}" if path else name
            if not isinstance(below, list):
                yield where, below
            yield from fields(below, where)
    elif isinstance(value, list):
        for below in value:
            if not isinstance(below, list):
                yield f"{path}[]", below
            yield from fields(below, f"{path}[]")


def lists(value, path=""):
    """Every list below a value: its path, and whether it has elements."""
    if isinstance(value, dict):
        for name, below in value.items():
            yield from lists(below, f"{path}.{name}" if path else name)
    elif isinstance(value, list):
        yield path, bool(value)
        for below in value:
            yield from lists(below, f"{path}[]")


def mismatches(name, version, rows, listings):
    seen = set()
    for listing in listings:
        if (listing.pop("schema"), listing.pop("version")) != (f"velmora-mm {name}", version):
            yield "the schema or its version is another one"
        for path, value in fields(listing):
            seen.add(path)
            words = rows.get(path)
            if words is None:
                yield f"{path} is printed and has no row"
                continue
            allowed = tuple(TYPES[word] for word in words.split(" or "))
            is_number_where_boolean = isinstance(value, bool) and "boolean" not in words
            if not any(isinstance(value, kind) for kind in allowed) or is_number_where_boolean:
                yield f"{path} is {json.dumps(value)}, not {words}"
    found = [pair for listing in listings for pair in lists(listing)]
    empty = {path for path, _ in found} - {path for path, filled in found if filled}
    for path in rows:
        if path not in seen and not any(path.startswith(f"{list_path}[]") for list_path in empty):
            yield f"{path} has a row and is not printed"


def main(device, page, *tool):
    environment = os.environ | {"VELMORA_MM_DEVICE": device}

    folder = tempfile.TemporaryDirectory()
    pathlib.Path(folder.name, "job.txt").write_text(RECORDING)

    def run(command, status=0):
        words = command.replace("velmora-mm", shlex.join(tool))
        done = subprocess.run(words, shell=True, env=environment, cwd=folder.name, capture_output=True, text=True, check=False)
        if done.returncode != status:
            sys.exit(f"{command} ended with {done.returncode}: {done.stderr}")
        return done.stdout

    for words in SETUP:
        run(f"velmora-mm {words}")
    wrong = []
    for name, version, command, rows in sections(pathlib.Path(page).read_text()):
        if command is None or not rows:
            wrong.append(f"{name}: the section has no command, or no table")
            continue
        before, status = BEFORE.get(name, ([], 0))
        for words in before:
            run(f"velmora-mm {words}")
        output = run(command, status)
        is_one_object = output.startswith("{\n") # else an object on each line
        listings = [json.loads(text) for text in ([output] if is_one_object else output.splitlines())]
        wrong += [f"{name}: {line}" for line in sorted(set(mismatches(name, version, rows, listings)))]
    sys.exit("\n".join(wrong) if wrong else 0)


if __name__ == "__main__":
    main(*sys.argv[1:])
