"""Pictures of pages with a palette: a quarter of their size, and nothing in them but the picture."""

import collections
import struct
import zlib

COLOURS = 256


def chunks(png):
    at = 8
    while at < len(png):
        size, name = struct.unpack(">I4s", png[at:at + 8])
        yield name, png[at + 8:at + 8 + size]
        at += 12 + size


def chunk(name, content):
    return struct.pack(">I", len(content)) + name + content + struct.pack(">I", zlib.crc32(name + content))


def paeth(left, above, corner):
    distances = [(abs(above - corner), left), (abs(left - corner), above), (abs(left + above - 2 * corner), corner)]
    return min(distances, key=lambda pair: pair[0])[1]


def lines(data, width):
    """The lines of a picture of three bytes a point, their filters undone."""
    above = bytearray(3 * width)
    for at in range(0, len(data), 3 * width + 1):
        kind, line = data[at], bytearray(data[at + 1:at + 1 + 3 * width])
        for i in range(len(line) if kind else 0):
            left, corner = (line[i - 3], above[i - 3]) if i >= 3 else (0, 0)
            line[i] = (line[i] + (0, left, above[i], (left + above[i]) // 2, paeth(left, above[i], corner))[kind]) & 255
        yield bytes(line)
        above = line


def with_palette(png):
    parts = list(chunks(png))
    width, height, *form = struct.unpack(">IIBBBBB", parts[0][1])
    if form != [8, 2, 0, 0, 0]:
        raise ValueError(f"not a plain picture in colour: {form}")
    data = zlib.decompress(b"".join(content for name, content in parts if name == b"IDAT"))
    rows = [[line[i:i + 3] for i in range(0, len(line), 3)] for line in lines(data, width)]
    counts = collections.Counter(point for row in rows for point in row)
    palette = [colour for colour, _ in counts.most_common(COLOURS)]
    number = {colour: min(range(len(palette)), key=lambda i: sum((a - b) ** 2 for a, b in zip(palette[i], colour))) for colour in counts}
    packed = zlib.compress(b"".join(b"\0" + bytes(map(number.get, row)) for row in rows), 9)
    return (png[:8] + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 3, 0, 0, 0)) + chunk(b"PLTE", b"".join(palette)) +
            chunk(b"IDAT", packed) + chunk(b"IEND", b""))
