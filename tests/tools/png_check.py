#!/usr/bin/env python3
"""Checks a PNG without third-party modules: its width and height, and that
it is not blank (enough distinct colours and non-background pixels).

Usage: png_check.py FILE WIDTH HEIGHT MIN_COLOURS MIN_INK_SHARE
Prints the figures; exits 1 when a check fails.
"""
import struct
import sys
import zlib

CHANNELS = {0: 1, 2: 3, 3: 1, 4: 2, 6: 4}


def read_chunks(data):
    if data[:8] != b"\x89PNG\r\n\x1a\n":
        raise ValueError("not a PNG file")
    position = 8
    while position < len(data):
        (length,) = struct.unpack(">I", data[position:position + 4])
        kind = data[position + 4:position + 8]
        yield kind, data[position + 8:position + 8 + length]
        position += 12 + length


def paeth(left, up, up_left):
    estimate = left + up - up_left
    distances = (abs(estimate - left), abs(estimate - up), abs(estimate - up_left))
    if distances[0] <= distances[1] and distances[0] <= distances[2]:
        return left
    return up if distances[1] <= distances[2] else up_left


def unfilter(raw, width, height, pixel_bytes):
    stride = width * pixel_bytes
    rows = []
    previous = bytearray(stride)
    position = 0
    for _ in range(height):
        kind = raw[position]
        row = bytearray(raw[position + 1:position + 1 + stride])
        position += 1 + stride
        for i in range(stride):
            left = row[i - pixel_bytes] if i >= pixel_bytes else 0
            up = previous[i]
            up_left = previous[i - pixel_bytes] if i >= pixel_bytes else 0
            if kind == 1:
                row[i] = (row[i] + left) & 0xFF
            elif kind == 2:
                row[i] = (row[i] + up) & 0xFF
            elif kind == 3:
                row[i] = (row[i] + ((left + up) >> 1)) & 0xFF
            elif kind == 4:
                row[i] = (row[i] + paeth(left, up, up_left)) & 0xFF
        rows.append(bytes(row))
        previous = row
    return rows


def main():
    path, width, height, min_colours, min_ink = sys.argv[1:6]
    data = open(path, "rb").read()
    header = None
    compressed = b""
    for kind, body in read_chunks(data):
        if kind == b"IHDR":
            header = struct.unpack(">IIBBBBB", body)
        elif kind == b"IDAT":
            compressed += body
    png_width, png_height, depth, colour_type, _, _, interlace = header
    print(f"size {png_width}x{png_height}, depth {depth}, colour type {colour_type}")
    if (png_width, png_height) != (int(width), int(height)):
        print(f"expected {width}x{height}")
        return 1
    if depth != 8 or interlace != 0 or colour_type not in CHANNELS:
        print("only 8-bit non-interlaced images are decoded here")
        return 1
    pixel_bytes = CHANNELS[colour_type]
    rows = unfilter(zlib.decompress(compressed), png_width, png_height, pixel_bytes)
    counts = {}
    for row in rows:
        for i in range(0, len(row), pixel_bytes):
            pixel = row[i:i + pixel_bytes]
            counts[pixel] = counts.get(pixel, 0) + 1
    background, background_count = max(counts.items(), key=lambda item: item[1])
    total = png_width * png_height
    ink = (total - background_count) / total
    print(f"{len(counts)} distinct colours, {ink:.3%} of the pixels differ from the background")
    if len(counts) < int(min_colours):
        print(f"expected at least {min_colours} colours")
        return 1
    if ink < float(min_ink):
        print(f"expected at least {float(min_ink):.1%} non-background pixels")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
