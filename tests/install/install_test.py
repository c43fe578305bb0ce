#!/usr/bin/env python3
"""Installs a build and uses it as other projects do.

  install_test.py --build DIR [--peer DIR] [--prefix DIR]

--peer    a build for the other CPU architecture, whose installation is used as well
--prefix  an installation to use instead of one of the build

The installation is made below DESTDIR, moved to another place and used from there: its headers are
compiled alone, and examples/consumer is built with CMake and with pkg-config and run. Programs
outside of the installation have to find what belongs to it.
"""
import argparse, concurrent.futures, os, re, select, shutil, subprocess, sys, tempfile, time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
CONSUMER = ROOT / "examples/consumer"
WARNINGS = ["-std=c++20", "-Wall", "-Wextra", "-Wpedantic", "-Werror"]
SESSION_PORT = "com.veltrane.vltsessiond.1.1"
GREETER_PORT = "com.example.greeter"
LIMIT = 300  # seconds for one command

SKIPPED = 77

problems, missing = [], []


def problem(text):
    print(f"FAILED: {text}", flush=True)
    problems.append(text)


def run(command, **options):
    """Runs a command and returns its result; what it prints is in stdout."""
    options = {"stdout": subprocess.PIPE, "stderr": subprocess.STDOUT, "text": True, "timeout": LIMIT,
               "stdin": subprocess.DEVNULL, **options}
    return subprocess.run([str(word) for word in command], **options)


def must(command, **options):
    result = run(command, **options)
    if result.returncode != 0:
        sys.exit(f"FAILED: {' '.join(map(str, command))}\n{result.stdout}")
    return result.stdout


class Session:
    """A home folder and a session directory of their own, in which no variable names a prefix."""

    def __init__(self, folder, prefix):
        self.folder, self.prefix = folder, prefix
        for name in ("home", "etc", "run"):
            (folder / name).mkdir(parents=True)
        (folder / "run").chmod(0o700)
        self.environment = {"HOME": str(folder / "home"), "XDG_RUNTIME_DIR": str(folder / "run"),
                            "XDG_CONFIG_DIRS": str(folder / "etc"), "PATH": os.environ["PATH"],
                            "VLTHOST_LOG": str(folder / "log"), "LC_ALL": "C.UTF-8"}

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for line in self.vltctl("ports").splitlines():
            self.vltctl("quit", line.split()[0])
        left = self.vltctl("ports")
        if left:
            problem(f"still running: {left}")

    def vltctl(self, *words):
        return run([self.prefix / "bin/vltctl", *words], env=self.environment,
                   stderr=subprocess.DEVNULL).stdout

    def expect(self, expected, command, **variables):
        environment = {**self.environment, **{name: str(value) for name, value in variables.items()}}
        result = run(command, env=environment)
        if result.returncode != 0 or result.stdout != expected:
            log = (self.folder / "log").read_text() if (self.folder / "log").exists() else ""
            problem(f"{' '.join(map(str, command))}: exit status {result.returncode}, printed "
                    f"{result.stdout!r} instead of {expected!r}\n{log}")


def install(build, folder):
    """Installs below DESTDIR and moves the result away. Returns where it is then."""
    must(["cmake", "--install", build, "--prefix", "/opt/vlt"],
         env={**os.environ, "DESTDIR": str(folder / "packed")})
    if [path.name for path in (folder / "packed").iterdir()] != ["opt"]:
        problem("something was installed outside of the prefix")
    prefix = folder / "moved"
    shutil.move(folder / "packed/opt/vlt", prefix)
    for path in [*prefix.rglob("*.cmake"), *prefix.rglob("*.pc")]:
        for place in ("/opt/vlt", str(build), str(ROOT)):
            if place in path.read_text():
                problem(f"{path.relative_to(prefix)} contains {place}")
    return prefix


def library_folder(prefix):
    return next(prefix.rglob("vlt.pc")).parent.parent


def include_options(prefix):
    return [f"-I{prefix}/include/vlt", f"-I{prefix}/include/vlt/platform/include"]


def check_headers(prefix):
    headers = sorted((prefix / "include/vlt").rglob("*.h"))
    options = [*WARNINGS, *include_options(prefix), "-fsyntax-only", "-x", "c++"]

    def compile_alone(header):
        return header, run(["c++", *options, "-include", header, "/dev/null"])

    with concurrent.futures.ThreadPoolExecutor(int(os.environ.get("VLT_JOBS", 2))) as pool:
        for header, result in pool.map(compile_alone, headers):
            if result.returncode != 0:
                problem(f"{header.relative_to(prefix)} alone:\n{result.stdout}")
    if len(headers) < 50:
        problem(f"only {len(headers)} headers are installed")
    # Names of the C library mean what they mean without this library.
    source = "#include <Carbon/Carbon.h>\n#include <syslog.h>\n#ifdef syslog\n#error syslog\n#endif\n"
    result = run(["c++", *options, "-"], input=source, stdin=None)
    if result.returncode != 0:
        problem(result.stdout)


def check_archive(prefix):
    sections = run(["readelf", "-SW", library_folder(prefix) / "libvlt.a"]).stdout
    if ".text" not in sections or ".gnu.lto" in sections:
        problem("libvlt.a has no machine code, or link-time intermediate code beside it")


def configure(folder, prefix, *options):
    return run(["cmake", "-G", "Ninja", "-S", CONSUMER, "-B", folder,
                f"-Dvlt_DIR={library_folder(prefix)}/cmake/vlt", "-DCMAKE_BUILD_TYPE=Release", *options])


def build_with_cmake(folder, prefix, *options):
    result = configure(folder, prefix, "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Wpedantic -Werror", *options)
    if result.returncode != 0:
        sys.exit(f"FAILED: find_package\n{result.stdout}")
    must(["cmake", "--build", folder, "-j", os.environ.get("VLT_JOBS", "2")])


def greet(session, programs, library="", emulator=()):
    """The client finds and starts the server of its build; both use the same preferences."""
    variables = {"XDG_DATA_DIRS": programs / "share"}
    if library:
        variables["LD_LIBRARY_PATH"] = library
    if not emulator:
        session.expect("Hello, Ann! (1)\n", [programs / "greet", "Ann"], **variables)
    else:  # a program that an emulator runs cannot start others
        server = subprocess.Popen([*emulator, programs / "greeter"], env=session.environment)
        end = time.monotonic() + LIMIT
        while GREETER_PORT not in session.vltctl("ports"):
            if time.monotonic() > end or server.poll() is not None:
                return problem("the emulated server claims no port")
            select.select([], [], [], 0.01)
        session.expect("Hello, Ann! (1)\n", [*emulator, programs / "greet", "Ann"], **variables)
    session.vltctl("prefs", "write", "com.example.greeter", "greeting", "Zdravo")
    session.expect("Zdravo, Zoë! (2)\n", [*emulator, programs / "greet", "Zoë"], **variables)
    session.vltctl("prefs", "delete", "com.example.greeter")
    session.expect("", [session.prefix / "bin/vltctl", "quit", GREETER_PORT])
    if emulator:
        server.wait(LIMIT)


def check_consumer(folder, prefix, peer):
    with Session(folder / "session", prefix) as session:
        build_with_cmake(folder / "static", prefix)
        greet(session, folder / "static")
        must(["ctest", "--test-dir", folder / "static", "--output-on-failure"])
        # The bundle is found where it is installed, too: beside the client.
        must(["cmake", "--install", folder / "static", "--prefix", folder / "installed"])
        session.expect("Hello, Bo! (1)\n", [folder / "installed/bin/greet", "Bo"])
        session.vltctl("quit", GREETER_PORT)

        shutil.copytree(CONSUMER, folder / "plain")
        pkg_config = {**os.environ, "PKG_CONFIG_PATH": str(library_folder(prefix) / "pkgconfig")}
        must(["make", "-C", folder / "plain", "CXXFLAGS=" + " ".join(WARNINGS)], env=pkg_config)
        greet(session, folder / "plain", library=library_folder(prefix))

        if list(library_folder(prefix).glob("libvlt.so")):
            build_with_cmake(folder / "shared", prefix, "-DGREETER_LIBRARY=vlt::vlt_shared")
            needed = run(["readelf", "-d", folder / "shared/greet"]).stdout
            if "libvlt.so.1" not in needed:
                problem("greet is not linked against libvlt.so.1")
            greet(session, folder / "shared")
        if peer:
            (folder / "peer").mkdir()
            peer_prefix = install(peer, folder / "peer")
            build_with_cmake(folder / "other", peer_prefix, f"--toolchain={ROOT}/cmake/cross/powerpc.cmake")
            greet(session, folder / "other", emulator=["qemu-ppc-static"])


def check_version(folder, prefix):
    """There is one version: of the package files, of vltctl and of the daemon's bundle."""
    version = re.search(r"(?m)^Version: (.*)$", (library_folder(prefix) / "pkgconfig/vlt.pc").read_text())[1]
    bundle = prefix / "share/veltrane/Applications/VLTSessionMonitor.app"
    with Session(folder / "version-session", prefix) as session:
        session.expect(f"vltctl {version}\nvltsessiond {version} in {bundle}\n",
                       [prefix / "bin/vltctl", "--version"])
        session.expect(f'{{"vltctl":"{version}","daemon":{{"version":"{version}","bundle":"{bundle}"}}}}\n',
                       [prefix / "bin/vltctl", "version", "--json"])
        bundle.rename(folder / "kept.app")
        session.expect(f"vltctl {version}\nvltsessiond is not installed\n",
                       [prefix / "bin/vltctl", "version"])
        (folder / "kept.app").rename(bundle)


def check_unit(folder, prefix):
    unit = prefix / "lib/systemd/user/vltsessiond.service"
    if not shutil.which("systemd-analyze"):
        return missing.append("systemd-analyze is not installed")
    copy = folder / unit.name
    copy.write_text(re.sub(r"/(opt/vlt|usr)/bin/", f"{prefix}/bin/", unit.read_text()))
    result = run(["systemd-analyze", "verify", "--user", "--man=no", copy],
                 env={**os.environ, "XDG_RUNTIME_DIR": str(folder)})
    if result.returncode != 0 or result.stdout:
        problem(f"{unit.name}: {result.stdout}")


def check_bad_input(folder, prefix):
    """What is wrong in a project is said when it is configured."""
    arguments = {"BUNDLE": "B", "IDENTIFIER": "com.example.b", "SIGNATURE": "BuBu", "SOURCES": "b.cpp"}
    projects = []
    for key in arguments:
        given = " ".join(f"{name} {value}" for name, value in arguments.items() if name != key)
        projects.append((f"find_package(vlt REQUIRED)\nvlt_add_application(b {given})", f"{key} is missing"))
    given = " ".join(f"{name} {value}" for name, value in {**arguments, "SIGNATURE": "five5"}.items())
    projects.append((f"find_package(vlt REQUIRED)\nvlt_add_application(b {given})", "is not four ASCII"))
    projects.append(("find_package(vlt 99 REQUIRED)", "version"))
    source = folder / "bad"
    source.mkdir()
    (source / "b.cpp").write_text("int main() {}\n")
    for text, expected in projects:
        (source / "CMakeLists.txt").write_text(
            f"cmake_minimum_required(VERSION 3.25)\nproject(b VERSION 1 LANGUAGES CXX)\n{text}\n")
        result = run(["cmake", "-G", "Ninja", "-S", source, "-B", folder / "bad-build",
                      f"-Dvlt_DIR={library_folder(prefix)}/cmake/vlt"])
        if result.returncode == 0 or expected not in result.stdout:
            problem(f"{text}: expected \"{expected}\"\n{result.stdout}")


OUTSIDE = """
#include <Carbon/Carbon.h>
#include <cstdio>
#include "clients/session_monitor.h"
int main() {
  const int err = SMVerifyDaemonRunning();
  static Str255 text = "\\4text";
  static NMRec notice = {};
  notice.nmStr = text;
  notice.qType = nmType;
  const int noticeErr = NMInstall(&notice);
  std::printf("%d %d\\n", err, noticeErr);
  std::fflush(stdout);
  std::getchar();
}
"""


def check_program_outside(folder, prefix):
    """A program anywhere starts the daemon and the notice helper of the prefix that it uses."""
    (folder / "outside.cpp").write_text(OUTSIDE)
    must(["c++", *WARNINGS, *include_options(prefix), folder / "outside.cpp", "-o", folder / "outside",
          f"{library_folder(prefix)}/libvlt.a", "-pthread"])
    helper = prefix / "libexec/veltrane/vlt-notify"
    mark = folder / "helper-started"
    kept = helper.rename(folder / "kept")
    helper.write_text(f"#!/bin/sh\n: >{mark}\n")
    helper.chmod(0o755)
    with Session(folder / "outside-session", prefix) as session:
        program = subprocess.Popen(
            [folder / "outside"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
            env={**session.environment, "DBUS_SESSION_BUS_ADDRESS": "unix:path=/nowhere"})
        ready, _, _ = select.select([program.stdout], [], [], LIMIT)
        line = program.stdout.readline() if ready else "nothing"
        end = time.monotonic() + LIMIT / 10
        while not mark.exists() and time.monotonic() < end:
            select.select([], [], [], 0.01)
        if line != "0 0\n" or not mark.exists():
            problem(f"a program outside of the installation printed {line!r}; "
                    f"the notice helper was started: {mark.exists()}")
        program.communicate()
        if str(prefix / "share/veltrane/Applications") not in session.vltctl("ports"):
            problem(f"another daemon was started: {session.vltctl('ports')}")
        session.vltctl("quit")
        session.expect("", [prefix / "bin/vltctl", "start"])
        if SESSION_PORT not in session.vltctl("ports"):
            problem("vltctl start did not start the daemon")
    kept.replace(helper)


def main():
    parser = argparse.ArgumentParser(usage=__doc__.split("\n\n")[1].strip())
    parser.add_argument("--build", type=Path)
    parser.add_argument("--peer", type=Path)
    parser.add_argument("--prefix", type=Path)
    options = parser.parse_args()
    # /tmp, as the path of a socket is short.
    with tempfile.TemporaryDirectory(prefix="vlt-install-") as name:
        folder = Path(name)
        prefix = options.prefix.resolve() if options.prefix else install(options.build.resolve(), folder)
        check_headers(prefix)
        check_archive(prefix)
        check_unit(folder, prefix)
        check_consumer(folder, prefix, options.peer)
        check_bad_input(folder, prefix)
        check_version(folder, prefix)
        check_program_outside(folder, prefix)
    print(f"{len(problems)} problems")
    if missing and not problems:
        print("skipped: " + ", ".join(missing))
        return SKIPPED
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
