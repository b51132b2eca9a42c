#!/usr/bin/env python3
"""Opens the map's pages in a browser without a window, points, zooms and types, and looks at what the page then has.

  check_map_page.py BROWSER MAP-PAGES [FOLDER]

MAP-PAGES writes the pages (tests/tool/map_pages.cpp). Each check is a script that runs behind the page's own and puts
what it found into the page's end; pictures of both colour schemes are left in FOLDER, to be looked at.
"""
import subprocess
import sys
import tempfile
from pathlib import Path

from browser import differing_schemes, expect, found_in, require

# What the scripts of the checks have: events as a person makes them, and what a strip shows.
HELPERS = """
const strip = document.querySelector('[data-handle="5"]');
const reading = () => document.getElementById('reading').textContent;
const at = block => { const box = strip.getBoundingClientRect();
    return box.left + (block - Number(strip.dataset.first)) * box.width / Number(strip.dataset.span); };
const point = block => strip.dispatchEvent(new PointerEvent('pointermove', {clientX: at(block), bubbles: true}));
const wheel = (block, deltaY) => strip.dispatchEvent(new WheelEvent('wheel', {clientX: at(block), deltaY, cancelable: true}));
const key = key => strip.dispatchEvent(new KeyboardEvent('keydown', {key, bubbles: true, cancelable: true}));
const view = () => [Number(strip.dataset.first), Number(strip.dataset.span)];
const runs = () => strip.querySelectorAll('rect.run').length;
"""

SMALL = """
found.title = document.title;
found.runs = runs();                       // of owner 3, owner 5 and nobody: free ones are the background
found.widths = [...strip.querySelectorAll('rect.run')].map(run => run.getAttribute('width') * 126 / strip.clientWidth);
found.nobodysFill = getComputedStyle(strip.querySelector('[data-run="4"]')).fill;
point(30.5); found.free = reading();
point(65.2); found.owned = reading();
point(123.5); found.nobody = reading();
const before = at(100); wheel(100, -1); wheel(100, -1);
found.zoomed = view()[1]; found.stays = Math.abs(at(100) - before) < 1; // events have whole pixels
key('0'); found.all = view();
key('Home'); key('ArrowRight'); found.second = reading();
key('ArrowRight'); key('ArrowRight'); found.fourth = reading();
key('o'); found.noFurther = reading();
key('l'); found.longest = reading();
for (let times = 0; times < 30; ++times) key('+');
found.deepest = view()[1] * 48 / strip.clientWidth;
key('End'); found.last = reading(); found.lastIsInView = view()[0] + view()[1] === 126;
key('PageUp'); found.moved = Math.abs(view()[0] - (126 - 1.9 * view()[1])) < 0.01;
key('0');
const legend = [...document.querySelectorAll('#legend button')];
found.legend = legend.map(button => button.textContent);
legend[1].click();
found.faded = strip.querySelectorAll('[opacity]').length;
legend[1].click();
found.allAgain = strip.querySelectorAll('[opacity]').length;
found.stretches = document.querySelectorAll('[data-stretch]').length;
document.querySelector('[data-stretch="1"]').dispatchEvent(new PointerEvent('pointermove', {bubbles: true}));
found.unknown = reading();
found.paints = new Set([...document.querySelectorAll('#patterns rect')].map(rect => rect.getAttribute('fill'))).size;
"""

CUT_UP = """
const started = performance.now();
for (let times = 0; times < 10; ++times) wheel(50000, -1);
for (let times = 0; times < 10; ++times) wheel(50000, 1);
found.milliseconds = (performance.now() - started) / 20;
key('0');
found.shapes = Number(strip.dataset.shapes); found.width = strip.clientWidth; found.gathered = Number(strip.dataset.gathered);
point(50001.5); found.crowded = reading();
for (let times = 0; times < 40; ++times) wheel(50001.5, -1);
point(50001.5); found.alone = reading();
found.whole = runs(); found.span = view()[1];
"""


def opened(browser, page, script, folder):
    return found_in(browser, page, HELPERS + script, folder)


def check_small(browser, folder):
    found = opened(browser, folder / "small.html", SMALL, folder)
    expect(found, title="Memory map of unix:/tmp/mm.sock", runs=3, stays=True, all=[0, 126], lastIsInView=True, moved=True, stretches=4, paints=2,
           nobodysFill="rgb(139, 148, 158)",
           free="PAGE: 0x95106400, free: run of 60 blocks, 30 KiB, 0x95102800 to 0x9510a000",
           owned="PAGE: 0x9510aa00, owner 3 (0x03): run of 10 blocks, 5 KiB, 0x9510a000 to 0x9510b400",
           nobody="PAGE: 0x95111e00, allocated, recorded for nobody: run of 4 blocks, 2 KiB, 0x95111c00 to 0x95112400",
           second="PAGE: 0x9510a000, owner 3 (0x03): run of 10 blocks, 5 KiB, 0x9510a000 to 0x9510b400",
           fourth="PAGE: 0x9510b800, owner 5 (0x05): run of 50 blocks, 25 KiB, 0x9510b800 to 0x95111c00",
           longest="PAGE: 0x95102800, free: run of 60 blocks, 30 KiB, 0x95102800 to 0x9510a000",
           last="PAGE: 0x95111c00, allocated, recorded for nobody: run of 4 blocks, 2 KiB, 0x95111c00 to 0x95112400",
           unknown="0x95101000 to 0x95102400, 5 KiB: not shown by any table: the heap's, or nobody's",
           legend=["nobody: 2 KiB in 1 run", "3: 5 KiB in 1 run", "5: 25 KiB in 1 run"], faded=2, allAgain=0)
    assert found["noFurther"] == found["fourth"], found["noFurther"]
    assert [round(width, 6) for width in found["widths"]] == [10, 50, 4], found["widths"]
    assert abs(found["zoomed"] - 126 * 0.64) < 1e-6, found["zoomed"]
    assert abs(found["deepest"] - 1) < 1e-6, found["deepest"]


def check_cut_up(browser, folder):
    """No more shapes than the screen has room for, whatever there is; and every run when one goes near."""
    found = opened(browser, folder / "cut-up.html", CUT_UP, folder)
    assert found["shapes"] <= 2 * found["width"], found
    assert found["gathered"] > 100, found
    assert "runs lie in this pixel: zoom in" in found["crowded"], found["crowded"]
    # Block 50001 is the 25,000th that is not free, counted from 0: owner 25000 mod 60 + 1.
    assert "0x95d37900, owner 41 (0x29): run of 1 block, 256 B, " in found["alone"], found["alone"]
    assert "zoom in" not in found["alone"], found["alone"]
    assert found["whole"] == int(found["span"]) // 2 or abs(found["whole"] - found["span"] / 2) <= 1.5, found
    assert found["milliseconds"] < 200, f"a redrawing takes {found['milliseconds']} ms"


def check_pictures(browser, folder):
    differing_schemes(browser, folder / "small.html", folder)


def main():
    browser, writer = sys.argv[1:3]
    require(browser)
    with tempfile.TemporaryDirectory() as temporary:
        folder = Path(sys.argv[3] if len(sys.argv) > 3 else temporary).resolve()
        subprocess.run([writer, folder], check=True)
        for check in (check_small, check_cut_up, check_pictures):
            check(browser, folder)
    print("the map's pages show, zoom and read as they should")


main()
