#!/usr/bin/env python3
"""Runs clang-tidy over the project's sources in compile_commands.json of build folders; every finding is an error.

    scripts/lint.py BUILD-FOLDER...

Two files at a time. A file that was clean is not looked at again until it, a header or a rule changes (build/lint/).
"""
import concurrent.futures
import hashlib
import json
import os
import pathlib
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
STAMPS = ROOT / "build" / "lint"


def tracked(*patterns):
    names = subprocess.run(["git", "ls-files", "--", *patterns], cwd=ROOT, check=True, capture_output=True, text=True)
    return [ROOT / name for name in names.stdout.splitlines()]


def hash_of(parts):
    digest = hashlib.sha256()
    for part in parts:
        digest.update(part)
    return digest.hexdigest()


def common_key():
    """Whatever may change the verdict about every source."""
    version = subprocess.run(["clang-tidy", "--version"], check=True, capture_output=True).stdout
    shared = [path for path in tracked("*.h", "*.hpp", "*.clang-tidy") if path.exists()]
    return hash_of([version, *(path.read_bytes() for path in shared)]).encode()


def sources(folders):
    """Each tracked source once, with the build folder that compiles it."""
    known = set(tracked("*.cpp", "*.c"))
    found = {}
    for folder in folders:
        for entry in json.loads((folder / "compile_commands.json").read_text()):
            path = pathlib.Path(os.path.normpath(os.path.join(entry["directory"], entry["file"])))
            if path in known and path not in found:
                found[path] = (folder, entry["command"])
    return found


def check(path, folder):
    tidy = subprocess.run(["clang-tidy", "--quiet", "-p", folder, path], cwd=ROOT, capture_output=True, text=True)
    return tidy.returncode == 0, tidy.stdout if tidy.stdout.strip() else tidy.stderr


def main():
    folders = [ROOT / name for name in sys.argv[1:]]
    if not folders:
        sys.exit(__doc__)
    STAMPS.mkdir(parents=True, exist_ok=True)
    common = common_key()
    pending = {}
    found = sources(folders)
    for path, (folder, command) in found.items():
        stamp = STAMPS / str(path.relative_to(ROOT)).replace("/", ",")
        key = hash_of([common, command.encode(), path.read_bytes()])
        if not stamp.exists() or stamp.read_text() != key:
            pending[path] = (folder, stamp, key)
    failed = []
    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as pool:
        jobs = {pool.submit(check, path, folder): path for path, (folder, _, _) in pending.items()}
        for job in concurrent.futures.as_completed(jobs):
            clean, text = job.result()
            _, stamp, key = pending[jobs[job]]
            if clean:
                stamp.write_text(key)
            else:
                failed.append(jobs[job])
                print(text, end="", flush=True)
    print(f"clang-tidy: {len(found)} sources, {len(pending)} of them looked at, {len(failed)} with findings")
    sys.exit(1 if failed else 0)


main()
