#!/usr/bin/env python3
"""Opens the pages that velmora-mm plan writes in a browser without a window, and looks at what they show.

  check_plan_page.py BROWSER VELMORA-MM [FOLDER]

Pictures of both colour schemes are left in FOLDER, to be looked at.
"""
import subprocess
import sys
import tempfile
from pathlib import Path

from browser import differing_schemes, expect, found_in, require

# 16 blocks of 4 KiB, of which the owner map takes one. In use behind lines 7 to 10: 5 blocks, 8 (3 for the second, 3 KiB of them
# waste), 3, 5.
RECORDING = """# velmora-mm recording 1
load "95000000-95700000"
table
start
create name=PAGE type=float kind=list bytes=64K block=4K map=8 lock=yes
expect = handle=5 bytes=0x10000 usable=0xf000
malloc segment=PAGE bytes=20K owner=0x1 -> $a1
malloc segment=PAGE bytes=9K owner=0x2 -> $a2
free $a1
malloc segment=PAGE bytes=6K owner=0x1 -> $a3
# end of recording
"""
# One block for the map and six to use: the second request finds one block only.
TOO_SMALL = '[segment.PAGE]\nbytes = "28KiB"\n'

# What the curve of a chart shows, read off its scale: bytes in use in the middle of each line.
SCRIPT = """
const charts = [...document.querySelectorAll('svg')].map(svg => {
    const number = (element, name) => Number(element.getAttribute(name));
    const limit = svg.querySelector('.limit'), axis = svg.querySelector('.axis'), path = svg.querySelector('path');
    const left = number(axis, 'x1'), width = number(axis, 'x2') - left;
    const bottom = number(axis, 'y1'), height = bottom - number(limit, 'y1');
    const inside = (line, kibibytes, most) => path.isPointInFill(new DOMPoint(left + width * line / LINES, bottom - height * kibibytes / most));
    const used = (line, most) => { let top = 0; while (top < most && inside(line, top + 0.5, most)) ++top; return top; };
    return {name: svg.getAttribute('aria-label'), width: svg.clientWidth,
            used: [6.5, 7.5, 8.5, 9.5, 10.5].map(line => used(line, MOST)),
            title: path.textContent, refused: [...svg.querySelectorAll('.refused')].map(line => line.textContent),
            refusedAt: [...svg.querySelectorAll('.refused')].map(line => (number(line, 'x1') - left) * LINES / width)};
});
found.charts = charts;
found.title = document.title;
found.heading = document.querySelector('h1').textContent;
found.tables = [...document.querySelectorAll('h2 + table')].map(table =>
    [...table.rows].slice(1).map(row => [...row.cells].map(cell => cell.textContent)));
found.overflows = document.documentElement.scrollWidth > window.innerWidth;
found.tried = document.querySelectorAll('details tr').length;
"""


def page(tool, folder, name, status, *options):
    recording = folder / "job <1>.txt"
    recording.write_text(RECORDING)
    written = folder / (name + ".html")
    ended = subprocess.run([tool, "plan", recording, *options, "--html", written], capture_output=True, text=True)
    assert ended.returncode == status, ended
    return written


def shown(browser, written, folder, most):
    lines = RECORDING.count("\n")
    return found_in(browser, written, SCRIPT.replace("LINES", str(lines)).replace("MOST", str(most)), folder)


def check_recorded(browser, tool, folder):
    """The use of the segment over the recording's lines, and a name that is no markup."""
    written = page(tool, folder, "recorded", 0)
    found = shown(browser, written, folder, 60)
    name = str(folder / "job <1>.txt")
    expect(found, title="Plan of " + name, heading="Plan of " + name, overflows=False, tried=0,
           tables=[[["PAGE", "60 KiB", "32 KiB", "8", "3 KiB", "28 KiB", "0", "0"]]])
    expect(found["charts"][0], name="use of PAGE", used=[0, 20, 32, 12, 20], title="PAGE: at most 32 KiB, after line 8", refused=[])
    assert found["charts"][0]["width"] > 500, found
    differing_schemes(browser, written, folder)


def check_refused(browser, tool, folder):
    """A refusal is a line where it happened."""
    layout = folder / "layout.toml"
    layout.write_text(TOO_SMALL)
    found = shown(browser, page(tool, folder, "refused", 1, "--layout", layout), folder, 24)
    chart = found["charts"][-1]
    expect(chart, used=[0, 20, 20, 0, 8], refused=["line 8: 9 KiB refused"])
    assert abs(chart["refusedAt"][0] - 8) < 1e-3, chart


def check_smallest(browser, tool, folder):
    """The layout that was found is full at the peak; what was tried stands below."""
    found = shown(browser, page(tool, folder, "smallest", 0, "--smallest"), folder, 32)
    assert found["tables"][-1] == [["PAGE", "32 KiB", "32 KiB", "8", "3 KiB", "0 B", "0", "0"]], found["tables"]
    expect(found["charts"][-1], used=[0, 20, 32, 12, 20], refused=[])
    assert found["tried"] > 2, found


def main():
    browser, tool = sys.argv[1:3]
    require(browser)
    with tempfile.TemporaryDirectory() as temporary:
        folder = Path(sys.argv[3] if len(sys.argv) > 3 else temporary).resolve()
        for check in (check_recorded, check_refused, check_smallest):
            check(browser, tool, folder)
    print("the plan's pages show what was in use, and what was refused")


main()
