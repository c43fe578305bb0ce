#!/usr/bin/env python3
"""Prints the values of gdb_values (values.cpp) in gdb and compares: printers_test.py PROGRAM.

The exit status is 77 where there is no gdb, or where processes may not be traced."""
import shutil, subprocess, sys
from pathlib import Path

PRINTERS = Path(__file__).resolve().parent.parent.parent / "scripts/gdb/vlt_printers.py"
SKIPPED = 77
RECORD = ("reco {'errn': long -1708, 'name': TEXT \"a text that is longer than sixteen bytes\", "
          "'gain': doub 1.5}")
ROWS = [
    ("gText", '"quote \\" and\\nline"'),
    ("gWideText", '"Zα"'),
    ("gReal", "1.5"),
    ("gDictionary", '{"list" = [-5, true, <00ff>], "gain" = 1.5}'),
    ("$vlt(gUntyped)", '"[-5, true, <00ff>]"'),
    ("gRecord", RECORD),
    ("gEvent", "aevt 'demo' 'ping' {'data': " + RECORD + "}"),
    ("gStale", "'long' <stale"),
    ("gNull", "null"),
]


def skip(reason):
    print(f"skipped: {reason}")
    return SKIPPED


def main():
    gdb = shutil.which("gdb")
    if gdb is None:
        return skip("gdb is not installed")
    command = [gdb, "-batch", "-nx", "-iex", "set debuginfod enabled off", "-ex", "set width 0",
               "-ex", "set charset UTF-8", "-ex", f"source {PRINTERS}", "-ex", "break Stop", "-ex", "run"]
    for expression, _ in ROWS:
        command += ["-ex", f"print {expression}"]
    run = subprocess.run(command + [sys.argv[1]], capture_output=True, text=True, timeout=50,
                         stdin=subprocess.DEVNULL, env={"LC_ALL": "C.UTF-8", "PATH": "/usr/bin:/bin"})
    if "ptrace" in run.stderr and "Operation not permitted" in run.stderr:
        return skip("this process may not trace others")
    failures = 0
    for number, (expression, expected) in enumerate(ROWS, 1):
        found = [line for line in run.stdout.splitlines() if line.startswith(f"${number} = ")]
        actual = found[0].split(" = ", 1)[1] if found else "nothing"
        if not (actual.startswith(expected) if expected.endswith("<stale") else actual == expected):
            failures += 1
            print(f"{expression} is shown as {actual}, not as {expected}")
    if failures:
        print(run.stdout[-3000:], run.stderr[-3000:])
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
