#!/usr/bin/python3
"""Enters the section .ldcfg of a 64-bit program into its header as the load configuration directory.

    load-config.py PROGRAM

The linker of binutils 2.40 does not fill this entry. The format is Microsoft's "PE Format".
"""

import struct
import sys
from pathlib import Path

DIRECTORIES = 112  # offset in the optional header of PE32+
LOAD_CONFIG = 10


def main():
    path = Path(sys.argv[1])
    image = bytearray(path.read_bytes())
    header = struct.unpack_from("<I", image, 0x3C)[0]
    sections, = struct.unpack_from("<H", image, header + 6)
    optional_size, = struct.unpack_from("<H", image, header + 20)
    optional = header + 24
    assert struct.unpack_from("<H", image, optional)[0] == 0x20B, "not a 64-bit image"
    for number in range(sections):
        section = optional + optional_size + 40 * number
        name = bytes(image[section:section + 8]).rstrip(b"\0")
        address, _, place = struct.unpack_from("<III", image, section + 12)
        if name == b".ldcfg":
            size, = struct.unpack_from("<I", image, place)
            struct.pack_into("<II", image, optional + DIRECTORIES + 8 * LOAD_CONFIG, address, size)
            path.write_bytes(image)
            return
    sys.exit(f"load-config.py: {path} has no section .ldcfg")


if __name__ == "__main__":
    main()
