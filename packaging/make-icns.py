#!/usr/bin/env python3
"""Renders the app icon's SVG at every size a Mac shows and packs the PNGs
into an .icns file.

Usage: make-icns.py RSVG_CONVERT SOURCE.svg OUTPUT.icns

An .icns file is the magic "icns" and the file's length, then one chunk per
image: a four-letter type that says its size, the chunk's length (header
included) and the PNG itself, lengths big-endian.
"""
import os
import struct
import subprocess
import sys
import tempfile

# Type and edge in pixels, the sizes and Retina doubles of 16 to 512 points.
ICNS_TYPES = [
    (b"icp4", 16), (b"ic11", 32), (b"icp5", 32), (b"ic12", 64),
    (b"ic07", 128), (b"ic13", 256), (b"ic08", 256), (b"ic14", 512),
    (b"ic09", 512), (b"ic10", 1024),
]


def main():
    rsvg_convert, source, output = sys.argv[1:]
    chunks = []
    with tempfile.TemporaryDirectory() as scratch:
        rendered = {}
        for kind, edge in ICNS_TYPES:
            if edge not in rendered:
                png = os.path.join(scratch, f"{edge}.png")
                subprocess.run([rsvg_convert, "-w", str(edge), "-h", str(edge), "-o", png, source],
                               check=True)
                with open(png, "rb") as f:
                    rendered[edge] = f.read()
            chunks.append(kind + struct.pack(">I", 8 + len(rendered[edge])) + rendered[edge])
    body = b"".join(chunks)
    with open(output + ".tmp", "wb") as f:
        f.write(b"icns" + struct.pack(">I", 8 + len(body)) + body)
    os.replace(output + ".tmp", output)


if __name__ == "__main__":
    main()
