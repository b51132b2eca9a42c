"""Writes a random session script of what user space can do, with the simulated controller's answers.

random_session.py VELMORA_MM SEED COMMANDS SCRIPT ANSWERS

The simulated controller is driven while the script is written, so that most releases name what is allocated and no
command of the script is one that stops a controller.
"""
import random
import re
import struct
import subprocess
import sys

program, seed, count, script_file, answers_file = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), sys.argv[4], sys.argv[5]
rng = random.Random(seed)
START, END = 0x95000000, 0x97000000
kept = []  # lines and their answers


class Dropped(Exception):
    """The command would stop a controller; it is not part of the script."""


class Unusable(Dropped):
    """Nor is this one, and the library has to be started anew before others make sense."""


class Machine:
    def __init__(self):
        self.process = subprocess.Popen([program, "script"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def run(self, line):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        answer = []
        while not answer or not answer[-1].startswith("="):
            answer.append(self.process.stdout.readline())
            if not answer[-1] or answer[-1].startswith("!"):
                sys.exit(f"not understood: {line}: {answer[-1]}")
        return answer

    def stop(self):
        self.process.stdin.close()
        self.process.wait()


machine = Machine()


def restore():
    """The machine as the kept lines leave it."""
    global machine
    machine.stop()
    machine = Machine()
    for line, _ in kept:
        machine.run(line)


def run(line):
    answer = machine.run(line)
    stopped = answer[-1].startswith(("= hang", "= oops"))
    # A release that is refused leaves a lock held, with interrupts off: no script for a real controller.
    if stopped or "1" in machine.run("locks")[-1]:
        restore()
        raise Dropped
    kept.append((line, answer))
    return answer[-1][2:].strip()


def ioctl(number, record):
    words = run(f"ioctl {number:#x} {{{record.hex()}}}").split()
    return int(words[0]), bytes.fromhex(words[1]) if len(words) > 1 else b""


class Segment:
    def __init__(self, handle, map_bits, block, stack, locked):
        self.handle, self.map_bits, self.block, self.stack, self.locked = handle, map_bits, block, stack, locked
        self.held = []


segments, number_of_names = [], 0
ranges = []  # start and end of every segment's memory, and of every piece of the heap


def read_ranges():
    global ranges
    found = [re.search(r"^(?:seg|piece) .* ?start=0x(\w+) end=0x(\w+)", line) for line in machine.run("dump")]
    ranges = [(int(match[1], 16), int(match[2], 16)) for match in found if match]


def create():
    global number_of_names
    stack = rng.random() < 0.25
    map_bits = 0 if stack else rng.choice([0, 1, 2, 4, 8])
    block = rng.choice([1, 4, 8, 512]) if stack else rng.choice([64, 256, 1024, 4096, 65536])
    locked = rng.random() < 0.6
    kind = 1 if rng.random() < 0.85 else 2
    size = rng.choice([0, 0x800, 0x10000, 0x48000, 0x100000, 0x123456]) if rng.random() < 0.9 else rng.getrandbits(32)
    if size == 0 and (len(segments) < 4 or stack):
        size = 0x20000
    name = f"S{number_of_names:03d}" if rng.random() < 0.9 else "S000"
    number_of_names += 1
    if rng.random() < 0.1:
        map_bits = rng.choice([3, 9, 255])
    record = struct.pack("<4sBBBBIIIIB3s", name.encode(), kind, 0 if stack else 1, map_bits, int(locked), size, block, 0, 0,
                         int(rng.random() < 0.3), bytes(rng.randrange(256) for _ in range(3)))
    result, back = ioctl(0x5301, record)
    if result == 0:
        handle = struct.unpack_from("<I", back, 16)[0]
        segments.append(Segment(handle, map_bits, block, stack, locked))
        read_ranges()


def allocate():
    segment = rng.choice(segments)
    owner = 0 if segment.map_bits == 0 else rng.randrange(1, 1 << segment.map_bits) if segment.map_bits > 1 else rng.randrange(2)
    if rng.random() < 0.05:
        owner = rng.randrange(256)
    size = rng.choice([1, 3, 64, 1000, 4096, 20000, 0x40000]) if rng.random() < 0.97 else rng.choice([0, 0xFFFFFFFF, 0x10000000])
    handle = 0x10031 if segment.handle == 49 and rng.random() < 0.5 else segment.handle
    if rng.random() < 0.02:
        handle = rng.choice([50, 77, 0xFFFFFFFF])
    result, back = ioctl(0x5302, struct.pack("<IIB3sI", handle, size, owner, b"\1\2\3", 0xFFFFFFFF))
    if result == 0:
        address = struct.unpack_from("<I", back, 12)[0]
        # A piece of the heap that is shorter than a block counts its blocks below zero and gives out what is not its own.
        if not any(start <= address and address + size <= end for start, end in ranges):
            kept.pop()
            restore()
            raise Unusable
        segment.held.append((address, size, owner))


def release():
    segment = rng.choice(segments)
    if not segment.held:
        return
    address, size, owner = segment.held.pop() if segment.stack else segment.held.pop(rng.randrange(len(segment.held)))
    ioctl(0x5303, struct.pack("<III", segment.handle, address, size))


def bad_release():
    ioctl(0x5303, rng.choice([struct.pack("<III", 5, 0, 1), struct.pack("<III", 5, START + 0x400000, 0), struct.pack("<III", 60, START, 1)]))


def collect():
    segment = rng.choice(segments)
    if segment.map_bits == 0 or segment.stack:
        return
    owner = rng.randrange(1, 1 << segment.map_bits)
    ioctl(0x5309, struct.pack("<IB3s", segment.handle, owner, b"\0\0\0"))
    # An entry with more bits than the owner's goes as well.
    segment.held = [held for held in segment.held if held[2] & owner != owner]


def memory():
    held = [held for segment in segments for held in segment.held]
    if not held:
        return
    address, size, _ = rng.choice(held)
    if size > 0x100000:
        return
    kind = rng.randrange(4)
    if kind == 0:
        ioctl(0x5304, struct.pack("<III", address, rng.getrandbits(16), min(size, rng.choice([0, 1, 100, size]))))
    elif kind == 1:
        run(f"fill {address:#x} {size} {rng.randrange(256)}")
    elif kind == 2:
        run(f"poke {address:#x} {bytes([rng.randrange(256)]).hex()}")
    run(f"peek {address:#x} 1")


def look():
    kind = rng.randrange(9)
    segment = rng.choice(segments)
    if kind == 0:
        ioctl(0x530D, struct.pack("<B", rng.choice([segment.handle & 0xFF, rng.randrange(60)])) + bytes(87))
    elif kind == 1:
        ioctl(0x530E, struct.pack("<B", rng.randrange(7)) + bytes(19))
    elif kind == 2:
        ioctl(0x530A, struct.pack("<III", rng.randrange(49), rng.randrange(START, END), 0))
    elif kind == 3:
        ioctl(0x530C, struct.pack("<III", rng.getrandbits(8), rng.choice([0, rng.randrange(START, END)]), 0))
    elif kind == 4:
        ioctl(0x530B, struct.pack("<II", rng.choice([segment.handle, 49, 100, 0x105]), 0))
    elif kind == 5:
        sync = rng.choice(["", " sync"])
        run(f"mmap {rng.choice([rng.randrange(START, END - 0x100000), 0xA4000000]):#x} {rng.randrange(1, 20) * 4096}{sync}")
    elif kind == 6:
        run(f"proc {rng.randrange(3)} {rng.randrange(4)}")
    elif kind == 7:
        run(f"{rng.choice(['read', 'write'])} {rng.randrange(100)}")
    else:
        run(f"ioctl {rng.randrange(0x52FE, 0x5311):#x} {rng.choice([0, 0x1000FFFD, 0xFFFFFFFD, 0x94000000, START, 0x92FFFFFF, 0x93000000]):#x}")


def fixed():
    names = [b"$RJL", b"$JCB", b"$UEV", b"NONE", b"$ALL"]
    kind = rng.randrange(3)
    if kind == 0:
        ioctl(0x5307, struct.pack("<4sIIB3s", rng.choice(names), 0, 0, 0, b"\0\0\0"))
    elif kind == 1:
        ioctl(0x5306, struct.pack("<4sIIB3s", b"$NEW", 4096, START + 0x123400, 0, b"\0\0\0"))
    else:
        ioctl(0x5305, struct.pack("<4sB", rng.choice([b"NONE", b"XXXX"]), 7))


def attempt(action):
    try:
        action()
    except Unusable:
        start_library((0, 1))
    except Dropped:
        pass


def start_library(options=(0, 1, 2, 3, 0, 0, 4)):
    result, _ = ioctl(0x5300, struct.pack("<Ii", rng.choice(options), -1))
    segments.clear()
    if result != 0:  # nothing can be created then
        attempt(create)
        ioctl(0x5300, struct.pack("<Ii", 0, -1))
    create_one()


def create_one():
    for _ in range(100):
        attempt(create)
        if segments:
            return
    sys.exit(f"seed {seed}: no segment can be created")


run('load "94000000-96000000"')
run(f'load "{START:x}-{END:x}"')
ioctl(0x5308, struct.pack("<I", 1))
ioctl(0x5308, struct.pack("<I", 0))
ioctl(0x5300, struct.pack("<Ii", 0, -1))
create_one()
actions = {allocate: 45, release: 35, look: 12, memory: 8, create: 4, collect: 3, fixed: 2, bad_release: 1}
for _ in range(count):
    attempt(start_library if rng.random() < 0.002 else rng.choices(list(actions), weights=list(actions.values()))[0])
for handle in range(49):
    ioctl(0x530D, struct.pack("<B", handle) + bytes(87))
attempt(lambda: ioctl(0x530B, struct.pack("<II", 100, 0)))
run("unload")
machine.stop()
with open(script_file, "w") as script, open(answers_file, "w") as answers:
    for line, answer in kept:
        script.write(line + "\n")
        answers.writelines(answer)
