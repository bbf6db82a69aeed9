"""Makes and checks buffers with Python's zlib module, for the case ZLib.AgreesWithPython.

make SEED COUNT FILE    writes COUNT records: size of the plain bytes, plain bytes, size of the compressed, compressed
check FILE              reads such a file and compares; ends with exit code 1 at the first that differs

Sizes are 32-bit, little-endian.
"""

import random
import struct
import sys
import zlib

LARGEST = 1 << 20


def plain_bytes(rng, index):
    if index < 2:  # both ends of the range
        size = index * LARGEST
    else:  # far more small ones than large ones
        size = int(LARGEST ** rng.random() ** 1.5)
    noise = rng.randbytes(size)
    kind = rng.randrange(4)
    if kind == 0:
        return noise
    if kind == 1:
        return noise[: size // 50 + 1] * 51
    return noise.translate(bytes(b"etaoin shrdlu\n"[i % 14] for i in range(256)))


def write_block(file, data):
    file.write(struct.pack("<I", len(data)))
    file.write(data)


def read_block(file):
    header = file.read(4)
    if not header:
        return None
    return file.read(struct.unpack("<I", header)[0])


def make(seed, count, name):
    rng = random.Random(seed)
    with open(name, "wb") as file:
        for index in range(count):
            plain = plain_bytes(rng, index)[:LARGEST]
            write_block(file, plain)
            write_block(file, zlib.compress(plain, rng.choice((-1, 0, 1, 1, 1, 9))))


def check(name):
    records = 0
    with open(name, "rb") as file:
        while (plain := read_block(file)) is not None:
            unpacker = zlib.decompressobj()
            if unpacker.decompress(read_block(file)) != plain or not unpacker.eof or unpacker.unused_data:
                sys.exit(f"record {records} differs")
            records += 1
    print(records)


if sys.argv[1] == "make":
    make(int(sys.argv[2]), int(sys.argv[3]), sys.argv[4])
else:
    check(sys.argv[2])
