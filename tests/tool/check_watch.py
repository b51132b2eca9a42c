#!/usr/bin/env python3
"""Runs "velmora-mm watch" on terminals of several sizes, types its keys and looks at what stands on the screen.

  check_watch.py VELMORA-MM CONTROLLER SOME-WORK
"""
import fcntl
import os
import pty
import select
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import time
from pathlib import Path

import pyte

tool, controller, some_work = sys.argv[1:4]
PATIENCE = 20  # seconds


class Terminal:
    """A program on a terminal of its own, and the screen as somebody in front of it sees it."""

    def __init__(self, columns, rows, *words, **environment):
        self.screen = pyte.Screen(columns, rows)
        self.stream = pyte.ByteStream(self.screen)
        self.sent = b""
        self.master, slave = pty.openpty()
        self.slave = slave
        self.resize(columns, rows)
        self.before = termios.tcgetattr(slave)
        settings = {"PATH": os.environ["PATH"], "TERM": "xterm-256color", "LC_ALL": "C.UTF-8", **environment}
        self.process = subprocess.Popen([tool, "watch", *words], stdin=slave, stdout=slave, stderr=slave, env=settings,
                                        start_new_session=True, preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0))

    def resize(self, columns, rows):
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))
        self.screen.resize(rows, columns)

    def type(self, keys):
        os.write(self.master, keys)

    def read(self, seconds=0.05):
        while select.select([self.master], [], [], seconds)[0]:
            part = os.read(self.master, 65536)
            self.sent += part
            self.stream.feed(part)

    def until(self, what, condition):
        deadline = time.monotonic() + PATIENCE
        while not condition():
            assert time.monotonic() < deadline, f"never {what}:\n{self.text()}\n{self.sent[-400:]!r}, status {self.process.poll()}"
            self.read()

    def shows(self, text):
        self.until(f"shows {text!r}", lambda: any(text in line for line in self.screen.display))

    def hides(self, text):
        self.until(f"hides {text!r}", lambda: not any(text in line for line in self.screen.display))

    def text(self):
        return "\n".join(self.screen.display)

    def ends(self, status):
        deadline = time.monotonic() + PATIENCE
        while self.process.poll() is None:
            self.read()
            assert time.monotonic() < deadline, "it does not end"
        self.read()
        assert self.process.returncode == status, f"status {self.process.returncode}, not {status}: {self.text()}"
        assert termios.tcgetattr(self.slave) == self.before, "the terminal is not as it was"
        os.close(self.master)
        os.close(self.slave)


def start(folder):
    socket = Path(folder) / "mm.sock"
    process = subprocess.Popen([controller, "--socket", socket])
    deadline = time.monotonic() + PATIENCE
    while not socket.exists():
        assert time.monotonic() < deadline, "the controller does not start"
        time.sleep(0.02)
    os.environ["VELMORA_MM_DEVICE"] = f"unix:{socket}"
    return process


def work(*words):
    subprocess.run([some_work, *words], check=True)


def check_keys(device):
    terminal = Terminal(80, 24, "--interval", "0.1", VELMORA_MM_DEVICE=device)
    bar = "PAGE |" + "█" * 15 + " " * 16 + "|  50 %  512 KiB of    1 MiB  peak  512 KiB"
    terminal.shows(bar)
    terminal.shows("free  516 KiB ▅")
    terminal.shows("kernel log")
    assert "\x1b[?1049h".encode() in terminal.sent, "no screen of its own"
    work("take", "64")
    terminal.shows("|  75 %  768 KiB of    1 MiB  peak  768 KiB")
    terminal.shows("▅▃")
    terminal.type(b"p")
    terminal.shows("PAUSED")
    work("take", "16")
    time.sleep(0.5)
    terminal.read()
    terminal.shows("|  75 %")
    terminal.type(b"p")
    terminal.hides("PAUSED")
    terminal.shows("|  81 %  832 KiB")
    terminal.type(b"s")
    terminal.shows("by use")
    terminal.type(b"+")
    terminal.shows(" 0.2 s by use")
    terminal.type(b"-")
    terminal.shows(" 0.1 s by use")
    terminal.type(b"h")
    terminal.shows("sort by handle, use, free, name")
    terminal.type(b"h")
    terminal.hides("sort by handle")
    terminal.resize(40, 12)
    terminal.shows("of    1 MiB")
    terminal.until("drawn for 40 columns", lambda: "peak" not in terminal.text())
    terminal.resize(15, 3)
    terminal.shows("too small")
    terminal.resize(80, 24)
    terminal.shows("peak  832 KiB")
    terminal.type(b"q")
    terminal.ends(0)
    assert b"\x1b[?1049l" in terminal.sent, "the screen of before is not shown again"


def check_small(device):
    terminal = Terminal(20, 5, VELMORA_MM_DEVICE=device, LC_ALL="C", NO_COLOR="1")
    terminal.shows("PAGE |###### |  81 %")
    os.kill(terminal.process.pid, signal.SIGTERM)
    terminal.ends(0)
    terminal = Terminal(40, 12, VELMORA_MM_DEVICE=device, TERM="vt100", LC_ALL="C")
    terminal.shows("PAGE |############   |  81 % of    1 MiB")
    terminal.type(b"\x03")
    terminal.ends(0)


def check_refusals(device):
    for columns, rows in ((19, 24), (80, 4)):
        terminal = Terminal(columns, rows, VELMORA_MM_DEVICE=device)
        terminal.ends(1)
        said = terminal.sent.decode().splitlines()[-1]
        assert said.endswith(f"velmora-mm watch: the terminal has {columns} columns and {rows} rows, watch takes 20 and 5"), said
    for settings, sentence in (({"TERM": "no-such-terminal"}, "nothing is known of the terminal 'no-such-terminal'"),
                               ({"TERM": ""}, "$TERM does not name the terminal")):
        terminal = Terminal(80, 24, VELMORA_MM_DEVICE=device, **settings)
        terminal.ends(1)
        assert terminal.sent.decode().startswith(f"velmora-mm watch: {sentence}"), terminal.sent
        assert terminal.sent.count(b"\n") == 1, terminal.sent


def check_device_that_goes(device, process):
    terminal = Terminal(80, 24, "--interval", "0.1", VELMORA_MM_DEVICE=device)
    terminal.shows("PAGE |")
    process.terminate()
    process.wait()
    terminal.ends(3)
    last = terminal.sent.split(b"\x1b[?1049l")[-1].decode()
    assert "velmora-mm watch: " in last and "the controller" in last, last


def main():
    with tempfile.TemporaryDirectory() as folder:
        process = start(folder)
        device = os.environ["VELMORA_MM_DEVICE"]
        try:
            work("start")
            check_keys(device)
            check_small(device)
            check_refusals(device)
            check_device_that_goes(device, process)
        finally:
            process.kill()
    print("watch draws, heeds its keys and gives the terminal back")


main()
