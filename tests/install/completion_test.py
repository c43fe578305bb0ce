#!/usr/bin/env python3
"""Types unfinished command lines into a bash that has the completion of vltctl, and presses Tab.

  completion_test.py VLTCTL SHARE [FILE]     the program, the folder with its applications, and what
                                             bash reads; default: packaging/completion/vltctl.bash
"""
import os, pty, re, select, shutil, subprocess, sys, tempfile, time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
FOLDER = ROOT / "packaging/completion"
PORT = "com.veltrane.vltsessiond.1.1"
LIMIT = 60  # seconds for one line
SKIPPED = 77

# What is typed, and the arguments that it has become.
LINES = [
    ("stat", ["status"]),
    ("help versi", ["help", "version"]),
    ("ports --a", ["ports", "--all"]),
    ("quit com.velt", ["quit", PORT]),
    ("send com.velt", ["send", PORT]),
    (f"send {PORT} test ping ----:lo", ["send", PORT, "test", "ping", "----:long="]),
    (f"send {PORT} test ping a:long=1 b:dou", ["send", PORT, "test", "ping", "a:long=1", "b:double="]),
    ("launch com.veltrane.sess", ["launch", "com.veltrane.sessionmonitor.1.1"]),
    ("launch --port com.velt", ["launch", "--port", PORT]),
    ("prefs re", ["prefs", "read"]),
    ("prefs read com.ex", ["prefs", "read", "com.example.tab"]),
    ("prefs un", ["prefs", "undo"]),
    ("prefs watch com.ex", ["prefs", "watch", "com.example.tab"]),
    ("prefs read com.example.tab --path gre", ["prefs", "read", "com.example.tab", "--path", "greeting"]),
    ("plist merge a b c --prefer th", ["plist", "merge", "a", "b", "c", "--prefer", "theirs"]),
    ("prefs read com.example.tab gre", ["prefs", "read", "com.example.tab", "greeting"]),
    ("prefs write com.example.tab k v --type inte",
     ["prefs", "write", "com.example.tab", "k", "v", "--type", "integer"]),
    ("device 1 set gain flo", ["device", "1", "set", "gain", "float"]),
    ("plist print odd", ["plist", "print", "odd name.plist"]),
    ("quit nobody.has.this", ["quit", "nobody.has.this"]),
    ("--json notif", ["--json", "notify"]),
    ("devices --wa", ["devices", "--watch"]),
    ("quit -t 3 com.velt", ["quit", "-t", "3", PORT]),
    ("nonsense x", ["nonsense", "x"]),
]


class Shell:
    def __init__(self, folder, environment, file):
        self.pid, self.terminal = pty.fork()
        if self.pid == 0:
            os.chdir(folder)
            os.execve("/bin/bash", ["bash", "--noprofile", "--norc", "-i"], environment)
        self.enter("bind 'set bell-style none'; bind 'set enable-bracketed-paste off'; stty -echo")
        self.enter(f"source {file}")

    def enter(self, keys):
        """Types the keys, then prints the words of the line; returns them."""
        os.write(self.terminal, keys.encode() + b"; printf '<%s>\\n' END\r")
        return self.read_until("<END>\r\n")

    def completed(self, line):
        # To the beginning of the line: the command that prints the words; to its end: a last word.
        keys = f"vltctl {line}\t\x01printf '<%s>\\n' \x05 END\r"
        os.write(self.terminal, keys.encode())
        return re.findall(r"<([^<>]*)>\r\n", self.read_until("<END>\r\n"))[1:-1]

    def read_until(self, mark):
        text, end = "", time.monotonic() + LIMIT
        while mark not in text:
            ready, _, _ = select.select([self.terminal], [], [], max(0, end - time.monotonic()))
            if not ready:
                sys.exit(f"FAILED: no \"{mark}\" in {text!r}")
            text += os.read(self.terminal, 65536).decode(errors="replace")
        return text

    def close(self):
        os.write(self.terminal, b"exit\r")
        os.waitpid(self.pid, 0)


def main():
    vltctl, share, *files = (str(Path(word).resolve()) for word in sys.argv[1:])
    problems = []
    with tempfile.TemporaryDirectory(prefix="vlt-tab-") as name:
        folder = Path(name)
        (folder / "run").mkdir(mode=0o700)
        (folder / "odd name.plist").touch()
        environment = {"HOME": name, "XDG_RUNTIME_DIR": f"{name}/run", "XDG_CONFIG_HOME": f"{name}/config",
                       "XDG_CONFIG_DIRS": f"{name}/etc", "XDG_DATA_DIRS": share, "TERM": "dumb", "PS1": "$ ",
                       "PATH": f"{Path(vltctl).parent}:/usr/bin:/bin", "LC_ALL": "C.UTF-8"}

        def run(*words):
            return subprocess.run([vltctl, *words], env=environment, capture_output=True, text=True).stdout

        run("start")
        run("prefs", "write", "com.example.tab", "greeting", "Hello")
        shell = Shell(folder, environment, files[0] if files else FOLDER / "vltctl.bash")
        for line, expected in LINES:
            actual = shell.completed(line)
            if actual != expected:
                problems.append(f"\"vltctl {line}\" became {actual}, not {expected}")
        # After the lines: bash-completion reads the file of a command at its first Tab.
        if "complete -F _vltctl vltctl" not in shell.enter("complete -p vltctl"):
            problems.append("complete -p does not know vltctl")
        shell.close()

        verbs = set(re.findall(r"(?m)^  vltctl ([a-z][\w-]*)", run("help"))) - {"help"}
        offered = {line.split("\t")[0] for line in run("__complete", "").splitlines()}
        if not verbs or not verbs <= offered:
            problems.append(f"not offered: {verbs - offered}")
        run("quit")

    missing = []
    for shell, file in (("zsh", "_vltctl"), ("fish", "vltctl.fish")):
        if not shutil.which(shell):
            missing.append(f"{shell} is not installed")
        elif subprocess.run([shell, "-n", FOLDER / file]).returncode != 0:
            problems.append(f"{shell} cannot read {file}")
    print("\n".join(problems) or f"{len(LINES)} lines completed")
    if missing and not problems:
        print("skipped: " + ", ".join(missing))
        return SKIPPED
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
