#!/usr/bin/env python3
"""Runs the commands of a page's console blocks, in their order and in one shell, and compares what they print with the page.

    check_console.py PAGE PROJECT PROGRAM... [-- STARTER...]

A command is a line behind "$ ", and goes on in lines behind "> ". "..." in a line stands for any text, on a line of its own for any
lines. The commands find PROJECT's folders and the programs in build/bin. STARTER starts a program of another processor. After a
command that starts a controller in the background, its socket is waited for.
"""
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

END = "end-of-the-command"


def commands(page):
    """Each command with the lines that it has to print."""
    found = []
    for block in re.findall(r"^```console\n(.*?)^```$", page, re.M | re.S):
        for line in block.splitlines():
            if line.startswith("$ "):
                found.append((line[2:], []))
            elif line.startswith("> ") and not found[-1][1]:
                found[-1] = (found[-1][0] + "\n" + line[2:], [])
            else:
                found[-1][1].append(line)
    return found


def as_shown(wanted, printed):
    pattern = "".join("(?:.*\n)*" if line == "..." else ".*".join(map(re.escape, line.rstrip().split("..."))) + " *\n"
                      for line in wanted)
    return re.fullmatch(pattern, printed) is not None


class Shell:
    def __init__(self, folder):
        self.process = subprocess.Popen(["bash"], cwd=folder, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True, start_new_session=True)
        self.folder = folder

    def run(self, command):
        self.process.stdin.write(f"{command}\nprintf '\\n{END}\\n'\n")
        self.process.stdin.flush()
        lines = []
        for line in self.process.stdout:
            if line == END + "\n":
                break
            lines.append(line)
        self.wait_for_socket(command)
        text = "".join(lines)
        return text[:-1] if text.endswith("\n") else text # the line's end that comes before END

    def wait_for_socket(self, command):
        socket = re.search(r"--socket (\S+).*&$", command)
        for _ in range(200 if socket else 0):
            if (self.folder / socket[1]).exists():
                return
            time.sleep(0.05)

    def end(self):
        os.killpg(self.process.pid, signal.SIGTERM) # and what it left running
        self.process.wait()


def prepare(folder, project, programs, starter):
    for path in project.iterdir():
        if path.name not in ("build", ".git"):
            (folder / path.name).symlink_to(path)
    (folder / "build/bin").mkdir(parents=True)
    for program in map(pathlib.Path, programs):
        here = folder / "build/bin" / program.name
        if not starter:
            here.symlink_to(program)
            continue
        here.write_text("#!/bin/sh\nexec " + " ".join([*starter, str(program)]) + ' "$@"\n')
        here.chmod(0o755)


def main(page, project, *words):
    programs, starter = words, ()
    if "--" in words:
        programs, starter = words[:words.index("--")], words[words.index("--") + 1:]
    folder = pathlib.Path(tempfile.mkdtemp())
    prepare(folder, pathlib.Path(project), programs, starter)
    os.environ.pop("VELMORA_MM_DEVICE", None)
    shell = Shell(folder)
    wrong = 0
    try:
        listed = commands(pathlib.Path(page).read_text())
        for command, wanted in listed:
            printed = shell.run(command)
            if not as_shown(wanted, printed):
                print(f"$ {command}\n--- the page shows\n" + "\n".join(wanted) + f"\n--- it printed\n{printed}")
                wrong += 1
    finally:
        shell.end()
        shutil.rmtree(folder)
    if not listed:
        sys.exit(f"no console block in {page}")
    print(f"{len(listed)} commands, {wrong} with another output than the page's")
    sys.exit(1 if wrong else 0)


if __name__ == "__main__":
    main(*sys.argv[1:])
