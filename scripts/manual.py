#!/usr/bin/env python3
"""Manual pages from what the programs say of themselves: one for each program, and one for each of its commands.

manual.py FOLDER PROGRAM...     writes FOLDER/PROGRAM.1 and FOLDER/PROGRAM-COMMAND.1
"""
import pathlib
import re
import subprocess
import sys

ORDER = ["SYNOPSIS", "DESCRIPTION", "ARGUMENTS", "OPTIONS", "COMMANDS", "EXIT STATUS", "EXAMPLES", "SEE ALSO"]
HEADINGS = {"positionals": "ARGUMENTS", "options": "OPTIONS", "subcommands": "COMMANDS", "exit status": "EXIT STATUS",
            "example": "EXAMPLES", "examples": "EXAMPLES"}


def output(*words):
    return subprocess.run(words, check=True, capture_output=True, text=True).stdout


def roff(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + text if text.startswith((".", "'")) else text


def sections(text):
    """The lines of a help text in the sections of a manual page, as roff."""
    found = {}
    section = "DESCRIPTION"
    for line in text.splitlines():
        heading, _, rest = line.partition(":")
        if line.startswith("usage:"):
            found.setdefault("SYNOPSIS", []).append(".B " + roff(rest.strip()))
            section = "DESCRIPTION"
        elif line[:1].strip() and heading.strip().lower() in HEADINGS:
            section = HEADINGS[heading.strip().lower()]
            found.setdefault(section, []).extend([roff(rest.strip())] if rest.strip() else [])
        elif line.strip():
            if not line.startswith(" ") and section not in ("DESCRIPTION", "EXIT STATUS"):
                section = "DESCRIPTION" # what follows a table is about the whole again
            found.setdefault(section, []).append(item(line, section))
        elif found.get("DESCRIPTION") and section != "EXIT STATUS":
            found["DESCRIPTION"].append(".PP")
    return found


def item(line, section):
    """A row of a table ("  NAME   what it is", which may go on in the next line), an example, or text."""
    if not line.startswith("  "):
        return roff(line)
    if section == "EXAMPLES":
        return ".PP\n.nf\n" + roff(line.strip()) + "\n.fi"
    if line.startswith(" " * 8):
        return roff(line.strip())
    name, _, text = re.sub(r" {2,}", "\t", line.strip()).partition("\t")
    return f".TP\n\\fB{roff(name)}\\fR\n{roff(text)}".rstrip("\n")


def page(name, version, text, see_also):
    about, _, text = text.lstrip("\n").partition("\n")
    found = sections(text)
    if found.get("DESCRIPTION", [])[-1:] == [".PP"]:
        found["DESCRIPTION"].pop()
    found["SEE ALSO"] = [",\n".join(f".BR {roff(other)} (1)" for other in see_also)]
    lines = [f'.TH {name.upper()} 1 "" "velmora_mm {version}" "User Commands"', ".SH NAME",
             f"{roff(name)} \\- {roff(about.rpartition(' - ')[2])}"]
    for title in ORDER:
        if any(line != ".PP" for line in found.get(title, [])):
            lines += [f".SH {title}"] + found[title]
    return "\n".join(lines) + "\n"


def main(folder, *programs):
    folder = pathlib.Path(folder)
    folder.mkdir(parents=True, exist_ok=True)
    texts = {}
    for program in programs:
        name = pathlib.Path(program).name
        texts[name] = output(program, "--help")
        version = output(program, "--version").split()[-1]
        table = texts[name].partition("Subcommands:\n")[2].partition("\n\n")[0]
        for command in re.findall(r"^  ([a-z][a-z-]*) ", table, re.MULTILINE):
            if command != "help":
                texts[f"{name}-{command}"] = output(program, command, "--help")
    for name, text in texts.items():
        (folder / f"{name}.1").write_text(page(name, version, text, sorted(set(texts) - {name})))


if __name__ == "__main__":
    main(*sys.argv[1:])
