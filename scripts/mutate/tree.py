"""The mutated copy of the tree, and its two builds: for Windows, and the module's core for this machine."""

import hashlib
import os
import re
import shutil
import subprocess
from pathlib import Path

# What the build and the tests read.
COPIED = ("CMakeLists.txt", "cmake", "docs", "provider", "scripts", "tests", "tools")


def fingerprint(root, *more):
    """Changes with any source of the module."""
    digest = hashlib.sha256(repr(more).encode())
    for path in sorted((root / "provider").rglob("*")):
        if path.is_file():
            digest.update(path.name.encode() + path.read_bytes())
    return digest.hexdigest()


def rewritten(text, mutants):
    """The text of a file with its mutants in place; `mutants` is a list of (number, site)."""
    for number, site in sorted(mutants, key=lambda pair: -pair[1].begin):
        whole = site.whole.replace("NUMBER", str(number))
        text = text[:site.begin] + whole + text[site.end:]
    return text


def run(command):
    done = subprocess.run(list(map(str, command)), capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"{command[0]} failed:\n{done.stdout}{done.stderr}")
    return done.stdout


class Build:
    """One build of the copy: where it is, how it is configured, and which programs the tests start."""

    def __init__(self, copy, folder, options, programs, more):
        self.copy = copy
        self.folder = folder
        self.options = options
        self.programs = programs
        self.more = more

    def configure(self):
        options = ["-G", "Ninja", f"-DCMAKE_CXX_FLAGS=-include {self.copy}/mutant.h",
                   "-DKEYWARDEN_ONE_BY_ONE=ON", *self.options]
        if shutil.which("ccache"):
            options.append("-DCMAKE_CXX_COMPILER_LAUNCHER=ccache")
        run(["cmake", "-S", self.copy, "-B", self.folder, *options])

    def targets(self):
        """The programs that CTest's entries start, and what they read. The shipped module is not
        among them: the tests load the one with checks."""
        listed = run(["ninja", "-C", self.folder, "-t", "targets", "all"])
        programs = re.findall(self.programs, listed, re.M)
        return sorted(p for p in programs if not p.endswith("/keywarden.exe")) + self.more

    def compile(self):
        """What the compiler says, and whether everything compiles."""
        done = subprocess.run(["cmake", "--build", self.folder, f"-j{os.cpu_count()}", "--target",
                               *self.targets(), "--", "-k", "0"], capture_output=True, text=True)
        return done.stdout + done.stderr, done.returncode == 0


class Tree:
    def __init__(self, root, folder):
        self.root = root
        self.copy = folder / "tree"
        self.log = folder / "build.log"
        self.windows = Build(
            self.copy, folder / "build",
            ["-DCMAKE_BUILD_TYPE=Release", "-DCMAKE_CXX_FLAGS_RELEASE=-O1 -DNDEBUG",
             f"-DCMAKE_TOOLCHAIN_FILE={self.copy}/cmake/mingw64.cmake"],
            r"^((?:bin|router)/\w+\.exe): ", ["certificate_fixtures", "tls_client"])
        self.native = Build(
            self.copy, folder / "native",
            ["-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_COMPILER=clang++", "-DKEYWARDEN_STAND_IN=ON",
             "-DCMAKE_CXX_FLAGS_DEBUG=-O1 -fno-omit-frame-pointer -fsanitize=address,undefined "
             "-fno-sanitize-recover=all"],
            r"^(bin/\w+_test): ", ["certificate_fixtures"])

    def write(self, mutants):
        """Brings the copy up to date. Files that stay the same keep their time, for Ninja."""
        kept = set()
        by_file = {}
        for number, site in mutants.items():
            by_file.setdefault(site.file, []).append((number, site))
        for name in COPIED:
            source = self.root / name
            files = [source] if source.is_file() else \
                [path for path in source.rglob("*") if path.is_file()]
            for path in files:
                target = self.copy / path.relative_to(self.root)
                kept.add(target)
                self.write_file(path, target, by_file)
        for path in list(self.copy.rglob("*")):
            if path.is_file() and path not in kept and path.name != "mutant.h":
                path.unlink()
        header = Path(__file__).parent / "mutant.h"
        self.put(self.copy / "mutant.h", header.read_bytes(), header)

    def write_file(self, path, target, by_file):
        content = path.read_bytes()
        folder = self.root / "provider" / "src"
        name = str(path.relative_to(folder)) if path.is_relative_to(folder) else None
        if name in by_file:
            content = rewritten(content.decode("ascii"), by_file[name]).encode("ascii")
        elif path.name == "Warnings.cmake":
            # Mutated sources compare what is always equal; an array must keep its size, though.
            content = b"add_library(keywarden_warnings INTERFACE)\n" \
                b"target_compile_options(keywarden_warnings INTERFACE -w -Werror=vla)\n"
        self.put(target, content, path)

    @staticmethod
    def put(target, content, source):
        if target.exists() and target.read_bytes() == content:
            return
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(content)
        shutil.copymode(source, target)

    def configure(self):
        for build in (self.windows, self.native):
            build.configure()

    def compile(self):
        """None if everything compiles, else the compilers' words."""
        said, good = zip(*(build.compile() for build in (self.windows, self.native)))
        self.log.write_text("".join(said))
        return None if all(good) else "".join(said)

    def at_fault(self, output, mutants):
        """The numbers of the mutants in lines that the compiler refused."""
        numbers = set()
        for file, line in set(re.findall(r"src/([\w./]+):(\d+):\d+: (?:fatal )?error:", output)):
            here = [(site.line, number) for number, site in mutants.items() if site.file == file]
            exact = [n for at, n in here
                     if at <= int(line) <= at + mutants[n].whole.count("\n")]
            # An error further down comes from the nearest change above.
            above = [max(pair for pair in here if pair[0] <= int(line))[1]] \
                if any(at <= int(line) for at, _ in here) else []
            numbers.update(exact or above)
        return numbers
