#!/usr/bin/env python3
"""Every block of code in the guides stands, line by line, in the example that the line before it names.

    check_guide.py PROJECT
"""
import pathlib
import re
import sys
import textwrap

project = pathlib.Path(sys.argv[1])
wrong = 0
for guide in ("application-guide.md", "tour.md"):
    text = (project / "docs" / guide).read_text()
    blocks = re.findall(r"(?:^<!-- (\S+) -->\n)?^```(cpp|c)\n(.*?)^```$", text, re.M | re.S)
    wrong += 0 if blocks else 1
    for name, _, code in blocks:
        example = (project / name).read_text() if name else ""
        places = {textwrap.indent(code, " " * depth, lambda line: line.strip()) for depth in range(0, 13, 4)}
        if not any(place in example for place in places):
            print(f"{guide}: not in {name or 'any example'}:\n{code}")
            wrong += 1
sys.exit(1 if wrong else 0)
