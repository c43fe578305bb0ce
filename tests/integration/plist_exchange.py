"""The other side of plist_exchange_test: property lists as plistlib writes and reads them.

make DIR COUNT     random values into DIR/N.xml and DIR/N.bin
check DIR COUNT    the same values must be in every file DIR/N.*.out
rewrite DIR COUNT  DIR/N.xml and DIR/N.bin must hold the same; writes both, read, in the binary
                   form (its XML has no carriage returns) to DIR/N.xml.out and N.bin.out
lines DIR COUNT    DIR/lines.json must be JSON in UTF-8, line by line: bytes in hexadecimal, their text
"""

import datetime
import json
import pathlib
import plistlib
import random
import struct
import sys

CHARACTERS = "ab<&>\n\t\"' ]]>\u00e9\u20ac\ufffd\U0001f600\ud7ff\ue000"
FIRST = datetime.datetime(1, 1, 1)
SECONDS = int((datetime.datetime(9999, 12, 31) - FIRST).total_seconds())


def text(rng):
    return "".join(rng.choice(CHARACTERS) for _ in range(rng.randrange(20)))


def value(rng, depth):
    kind = rng.randrange(9 if depth else 7)
    if kind == 0:
        return text(rng)
    if kind == 1:
        return rng.randrange(-(2**63), 2**63) >> rng.randrange(64)
    if kind == 2:
        return rng.choice([-(2**63), 2**63 - 1, 2**63, 2**64 - 1, 0, 255, 256, 65536, 2**32])
    if kind == 3:
        real = struct.unpack("<d", rng.randbytes(8))[0]
        return real if real == real else -0.0
    if kind == 4:
        return rng.random() < 0.5
    if kind == 5:
        return rng.randbytes(rng.randrange(120))
    if kind == 6:
        return FIRST + datetime.timedelta(seconds=rng.randrange(SECONDS))
    if kind == 7:
        return [value(rng, depth - 1) for _ in range(rng.randrange(6))]
    return {text(rng): value(rng, depth - 1) for _ in range(rng.randrange(20))}


def same(a, b):
    if type(a) is not type(b):
        return False
    if isinstance(a, float):
        return struct.pack("<d", a) == struct.pack("<d", b)
    if isinstance(a, list):
        return len(a) == len(b) and all(map(same, a, b))
    if isinstance(a, dict):
        return a.keys() == b.keys() and all(same(a[key], b[key]) for key in a)
    return a == b


def check_line(line):
    digits, text = json.loads(line)
    try:
        assert text == bytes.fromhex(digits).decode("utf-8", "surrogatepass"), line
    except UnicodeDecodeError:
        assert "\ufffd" in text, line


def main(verb, folder, count):
    folder = pathlib.Path(folder)
    if verb == "lines":
        for line in (folder / "lines.json").read_bytes().decode().split("\n")[:-1]:
            check_line(line)
        return
    forms = {"xml": plistlib.FMT_XML, "bin": plistlib.FMT_BINARY}
    for number in range(int(count)):
        files = {form: folder / f"{number}.{form}" for form in forms}
        if verb == "rewrite":
            lists = {form: plistlib.loads(files[form].read_bytes()) for form in forms}
            assert same(lists["xml"], lists["bin"]), files
        else:
            expected = value(random.Random(number), 5)
        for form, path in files.items():
            if verb == "make":
                path.write_bytes(plistlib.dumps(expected, fmt=forms[form]))
            elif verb == "rewrite":
                path.with_suffix(f".{form}.out").write_bytes(
                    plistlib.dumps(lists[form], fmt=plistlib.FMT_BINARY))
        if verb == "check":
            outputs = list(folder.glob(f"{number}.*.out"))
            assert len(outputs) == 4, outputs
            for path in outputs:
                assert same(expected, plistlib.loads(path.read_bytes())), path


main(*sys.argv[1:])
