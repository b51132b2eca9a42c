"""Writes an initial RAM file system: make_initramfs.py OUTPUT PATH=FILE... (a PATH ending in / takes a whole folder).

The archive is made here because device nodes in it would need a privileged cpio.
"""
import os
import stat
import sys


def entry(number, name, mode, data=b"", device=(0, 0)):
    encoded = name.encode() + b"\0"
    fields = (number, mode, 0, 0, 1, 0, len(data), 0, 0, device[0], device[1], len(encoded), 0)
    header = b"070701" + b"".join(b"%08X" % field for field in fields) + encoded
    header += b"\0" * (-len(header) % 4)
    return header + data + b"\0" * (-len(data) % 4)


def main():
    output, files = sys.argv[1], {}
    for argument in sys.argv[2:]:
        path, source = argument.split("=", 1)
        if path.endswith("/"):
            for folder, _, names in sorted(os.walk(source)):
                for name in sorted(names):
                    file = os.path.join(folder, name)
                    files[path + os.path.relpath(file, source)] = file
        else:
            files[path] = source

    folders = {"dev"}
    for path in files:
        folder = os.path.dirname(path.strip("/"))
        while folder:
            folders.add(folder)
            folder = os.path.dirname(folder)
    parts = [(folder, stat.S_IFDIR | 0o755, b"", (0, 0)) for folder in sorted(folders)]
    parts.append(("dev/console", stat.S_IFCHR | 0o600, b"", (5, 1)))
    for path, source in files.items():
        with open(source, "rb") as file:
            parts.append((path.strip("/"), stat.S_IFREG | 0o755, file.read(), (0, 0)))
    parts.append(("TRAILER!!!", 0, b"", (0, 0)))
    with open(output, "wb") as archive:
        for number, (name, mode, data, device) in enumerate(parts, 1):
            archive.write(entry(number, name, mode, data, device))


main()
