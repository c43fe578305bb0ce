#!/usr/bin/env python3
"""Compares what the shared library exports with the list packaging/libvlt.exports.

  exports_test.py LIBRARY LIST [--update]

--update writes the list. Template instances are left out, because the compiler decides which of
them are functions at all.
"""
import re, subprocess, sys
from pathlib import Path


def exported(library):
    output = subprocess.run(["nm", "-DC", "--defined-only", library], capture_output=True, text=True,
                            check=True).stdout
    names = set()
    for line in output.splitlines():
        kind, name = re.fullmatch(r"[0-9a-f]* (\w) (.*)", line).groups()
        if kind not in "AW":  # the version's name, template instances
            names.add(re.sub(r"@@?VLT_1$", "", name))
    return names


def main():
    library, path = sys.argv[1], Path(sys.argv[2])
    names = exported(library)
    if "--update" in sys.argv:
        path.write_text("".join(f"{name}\n" for name in sorted(names)))
    listed = set(path.read_text().splitlines())
    problems = [f"exported, but not in {path.name}: {name}" for name in sorted(names - listed)]
    problems += [f"in {path.name}, but not exported: {name}" for name in sorted(listed - names)]
    problems += [f"exported, but private: {name}" for name in sorted(names) if re.match(r"Host|std::", name)]
    if not names:
        problems.append(f"{library} exports nothing")
    print("\n".join(problems) or f"{len(names)} names exported, as listed")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
