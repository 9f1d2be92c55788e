#!/usr/bin/python3
"""Checks the layers of the source tree. Run by lint.sh.

  - An #include "..." names the folder of the header, and points down: to a folder of a lower rank or to
    the same folder. The ranks are below.
  - No folder and no file includes itself by way of others.
  - provider/src has fewer than 30 arrows between its folders.
  - Each unit has a test file of its name (STEM_test.*) anywhere below tests/, or a row in the section
    "Where a unit is tested" of docs/architecture.md.
  - The tests that the threat model in SECURITY.md names exist.
  - No test folder names the sources of another one; what tests share is in tests/support.

Prints one line for each violation, then the number of arrows. The status is 1 if there is a violation.
"""

import re
import sys
from pathlib import Path

# A folder may include those of a lower rank. Folders of one rank do not know each other.
PROVIDER = {"base": 0, "logger": 1, "config": 2, "p11": 3, "keystore": 4, "certstore": 4,
            "pindialog": 4, "nvvtoken": 5, "dll": 6}
# "." stands for the files beside main.cpp.
TOOL = {".": 0, "formats": 1, "system": 2, "check": 3, "log": 3, "prove": 3,
        "command": 4}
TOOL_ENTRY = ("main.cpp", 5)
# The tool is built on the module's objects, but not on its entry points.
TOOL_MAY_USE = set(PROVIDER) - {"dll"}
GENERATED = {"version.h"}
MOST_ARROWS = 29

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*"([^"]+)"', re.M)
SECTION = re.compile(r"^## Where a unit is tested$(.*?)(?=^## |\Z)", re.M | re.S)
ROW = re.compile(r"^\| `([\w.]+)` \| *(\S.*)$", re.M)
TEST_SOURCE = re.compile(r"[^\s()\"]+\.(?:cpp|c|h|cmake|def|spec|sh|inc)\b")


def sources(folder):
    return sorted(path for path in folder.rglob("*") if path.suffix in (".cpp", ".h"))


def include_lines(path):
    """The line number and the name of each header that is included with quotes."""
    text = path.read_text(encoding="utf-8")
    for match in INCLUDE.finditer(text):
        yield text.count("\n", 0, match.start(1)) + 1, match.group(1)


def circle(graph):
    """The nodes of one circle of the graph, the first one twice; nothing if there is none."""
    done, way = set(), []

    def visit(node):
        if node in way:
            return way[way.index(node):] + [node]
        if node in done:
            return []
        way.append(node)
        for after in sorted(graph.get(node, ())):
            found = visit(after)
            if found:
                return found
        way.pop()
        done.add(node)
        return []

    for start in sorted(graph):
        found = visit(start)
        if found:
            return found
    return []


class Layers:
    """The includes of one folder of sources."""

    def __init__(self, root, name, ranks, entry=None, foreign=frozenset()):
        self.root = root
        self.folder = root / name
        self.name = name
        self.ranks = ranks
        self.entry = entry
        self.foreign = foreign
        self.problems = []
        self.arrows = {}
        self.files = {}

    def rank_of(self, path):
        relative = path.relative_to(self.folder)
        if self.entry and str(relative) == self.entry[0]:
            return self.entry[0], self.entry[1]
        folder = str(relative.parent)
        return folder, self.ranks.get(folder)

    def read(self):
        for path in sources(self.folder):
            folder, rank = self.rank_of(path)
            if rank is None:
                self.problems.append(f"{path.relative_to(self.root)}: the folder has no rank in "
                                     "scripts/layers.py")
                continue
            for line, name in include_lines(path):
                self.read_include(path, folder, rank, line, name)
        for what, graph in (("folders", self.arrows), ("files", self.files)):
            found = circle(graph)
            if found:
                self.problems.append(f"{self.name}: a circle of {what}: {' -> '.join(found)}")

    def read_include(self, path, folder, rank, line, name):
        place = f"{path.relative_to(self.root)}:{line}"
        target = self.folder / name
        if name in GENERATED or name.split("/")[0] in self.foreign:
            return
        if ".." in Path(name).parts or not target.is_file():
            self.problems.append(f'{place}: "{name}" is not a path from {self.name}')
            return
        to_folder, to_rank = self.rank_of(target)
        self.files.setdefault(str(path.relative_to(self.folder)), set()).add(name)
        if to_folder == folder:
            return
        self.arrows.setdefault(folder, set()).add(to_folder)
        if to_rank is None or to_rank >= rank:
            way = "sideways" if to_rank == rank else "up"
            self.problems.append(f'{place}: "{name}" goes {way}, from {folder} to {to_folder}')

    def count(self):
        return sum(map(len, self.arrows.values()))


def untested(root, folders):
    """Units without a test file of their name and without a row in the table."""
    tested = {path.name.rpartition("_test.")[0] for path in (root / "tests").rglob("*_test.*")}
    page = (root / "docs" / "architecture.md").read_text(encoding="utf-8")
    for section in SECTION.findall(page):
        tested.update(unit for unit, _ in ROW.findall(section))
    units = {}
    for folder in folders:
        for path in sources(root / folder):
            units.setdefault((folder, path.stem), path)
    for (_, unit), path in sorted(units.items()):
        if unit not in tested:
            yield (f"{path.relative_to(root)}: there is no {unit}_test, and no row `{unit}` in "
                   'docs/architecture.md, "Where a unit is tested"')


def table_problems(root, folders):
    """Rows of the table whose unit does not exist, or whose test does not."""
    units = {path.stem for folder in folders for path in sources(root / folder)}
    tests = {path.name for path in (root / "tests").rglob("*") if path.is_file()}
    tests |= {name.rpartition(".")[0] for name in tests}
    page = (root / "docs" / "architecture.md").read_text(encoding="utf-8")
    for section in SECTION.findall(page):
        for unit, where in ROW.findall(section):
            if unit not in units:
                yield f"docs/architecture.md: `{unit}` has a row, but there is no such unit"
            for test in re.findall(r"`([\w./]*(?:_test|\.cpp|\.sh))`", where):
                if Path(test).name not in tests:
                    yield f"docs/architecture.md: the row of `{unit}` names {test}, which does not exist"


def missing_proofs(root):
    """Tests that the threat model names and that do not exist."""
    page = (root / "SECURITY.md").read_text(encoding="utf-8")
    for test in re.findall(r"`(tests/[^`]*)`", page):
        if not (root / test).exists():
            yield f"SECURITY.md names {test}, which does not exist"


def borrowed(root):
    """Sources that the CMakeLists.txt of a test folder names in another test folder."""
    tests = root / "tests"
    lists = [path for path in sorted(tests.rglob("CMakeLists.txt"))
             if path.parent != tests and path.relative_to(tests).parts[0] != "support"]
    for path in lists:
        own = path.parent
        for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            for name in TEST_SOURCE.findall(line.partition("#")[0]):
                full = name
                for variable, value in (("PROJECT_SOURCE_DIR", root), ("CMAKE_SOURCE_DIR", root),
                                        ("CMAKE_CURRENT_SOURCE_DIR", own),
                                        ("CMAKE_CURRENT_LIST_DIR", own)):
                    full = full.replace("${" + variable + "}", str(value))
                if "${" in full:
                    continue
                target = Path(own, full).resolve()
                if target.is_relative_to(tests) and not target.is_relative_to(own) \
                        and not target.is_relative_to(tests / "support"):
                    yield f"{path.relative_to(root)}:{number}: {name} belongs to another test folder"


def main():
    root = Path(sys.argv[1] if len(sys.argv) > 1 else Path(__file__).parents[1]).resolve()
    provider = Layers(root, "provider/src", PROVIDER)
    tool = Layers(root, "tools/keywarden", TOOL, TOOL_ENTRY, TOOL_MAY_USE)
    problems = []
    for layers in (provider, tool):
        layers.read()
        problems += layers.problems
    if provider.count() > MOST_ARROWS:
        problems.append(f"provider/src: {provider.count()} arrows between folders; "
                        f"at most {MOST_ARROWS} are allowed")
    folders = (provider.name, tool.name)
    problems += untested(root, folders)
    problems += table_problems(root, folders)
    problems += missing_proofs(root)
    problems += borrowed(root)
    for problem in problems:
        print(problem)
    for layers in (provider, tool):
        print(f"{layers.name}: {layers.count()} arrows between folders")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
