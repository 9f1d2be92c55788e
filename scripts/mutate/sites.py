"""Finds the places of provider/src that a small change can be made to, by libclang.

A change keeps the numbers of the lines, because the trace prints them: what it puts in stands in
the place of what was there, and only the original keeps its line breaks.
"""

import re
import subprocess
from dataclasses import dataclass
from pathlib import Path

from clang import cindex
from clang.cindex import CursorKind as Kind

KINDS = ("comparison", "constant", "status", "statement", "text")

FLIPPED = {
    "==": "!=", "!=": "==",
    "<": "<=", "<=": "<", ">": ">=", ">=": ">",
    "&&": "||", "||": "&&",
}

# What a status is swapped for; the successes stand for each other's failures.
STATUSES = ("NTE_INVALID_HANDLE", "NTE_INVALID_PARAMETER", "NTE_NOT_SUPPORTED",
            "NTE_INTERNAL_ERROR", "NTE_BAD_FLAGS", "NTE_NOT_FOUND")
RESULTS = ("CKR_GENERAL_ERROR", "CKR_FUNCTION_FAILED", "CKR_ARGUMENTS_BAD")

PRINTING = ("snprintf", "vsnprintf", "strftime")

# A macro with arguments: what stands in them may become anything.
MACRO = re.compile(r"\b[A-Z][A-Z0-9_]+\s*\(")
LOG_MACRO = r"(NV_(?:SEV|ERR|WRN|INF|DBG|TRC|LOG|AS|AT|UNDER|ARG))\("
LOG_CALL = re.compile(r"(?<=[{};)])\s*" + LOG_MACRO)
LOG_CALL_AFTER_ELSE = re.compile(r"(?<=\belse)\s+" + LOG_MACRO)
STATUS = re.compile(r"\b(?:NTE_[A-Z_]+|ERROR_SUCCESS|CKR_[A-Z_]+)\b")
ANSWER = re.compile(r"\breturn\s+(?:[\w.]+\()?(true|false)\b")
NUMBER = re.compile(r"(?<![\w.'])(?:0x[0-9A-Fa-f]+|[0-9]+)(?:[uU]?[lL]{0,2})(?![\w.'])")
NOT_LETTERS = re.compile(r"%[-+ #0-9.*]*(?:ll|l|h)?[A-Za-z%]|\\.|\\x[0-9A-Fa-f]+")
BLANKED = re.compile(r"""//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|'(?:\\.|[^'\\\n])+'"""
                     r"""|^[ \t]*\#(?:[^\n]|(?<=\\)\n)*""", re.S | re.M)
FUNCTIONS = (Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR,
             Kind.FUNCTION_TEMPLATE, Kind.CONVERSION_FUNCTION)
SCOPES = (Kind.NAMESPACE, Kind.CLASS_DECL, Kind.STRUCT_DECL, Kind.CLASS_TEMPLATE,
          Kind.CLASS_TEMPLATE_PARTIAL_SPECIALIZATION, Kind.LINKAGE_SPEC, Kind.UNEXPOSED_DECL)


@dataclass(frozen=True)
class Site:
    """One change: text[begin:end] of a file becomes `whole`, with NUMBER for the mutant's own. The file is
    named from provider/src. The function is what people find the place by, also when its line moves."""

    file: str
    function: str
    begin: int
    end: int
    line: int
    kind: str
    before: str
    after: str
    whole: str


def cross_flags(root):
    """The flags under which clang reads the Windows sources."""
    compiler = "x86_64-w64-mingw32-g++-posix"
    said = subprocess.run([compiler, "-x", "c++", "-E", "-v", "/dev/null"], check=True,
                          capture_output=True, text=True).stderr
    folders = said.partition("#include <...>")[2].partition("End of search list")[0].split("\n")[1:]
    flags = ["-x", "c++", "-std=c++20", "--target=x86_64-w64-mingw32", "-nostdlibinc", "-DNDEBUG",
             f"-I{root}/provider/src"]
    # libclang does not find its own headers, the compiler's intrinsics, by itself.
    intrinsics = sorted(Path("/usr/lib/clang").glob("*/include/x86intrin.h"))
    flags += ["-resource-dir", str(intrinsics[-1].parent.parent)]
    for folder in filter(None, map(str.strip, folders)):
        folder = str(Path(folder).resolve())
        if not re.search(r"/gcc/.*/include(-fixed)?$", folder):
            flags.append(f"-isystem{folder}")
    return flags


def mask(text):
    """The same text with blanks for comments, directives and the content of literals."""
    out = list(text)

    def blank(begin, end):
        for i in range(begin, end):
            if out[i] != "\n":
                out[i] = " "

    for match in BLANKED.finditer(text):
        quoted = match.group()[0] in "\"'"
        blank(match.start() + quoted, match.end() - quoted)
    return "".join(out)


def closing(text, opening):
    """The position behind the bracket that closes the one at `opening`."""
    depth = 0
    for i in range(opening, len(text)):
        depth += (text[i] in "([{") - (text[i] in ")]}")
        if depth == 0:
            return i + 1
    return len(text)


def flat(text):
    return " ".join(text.split("\n"))


def squeezed(text):
    return " ".join(text.split())


def qualified(cursor):
    """The name of a function with those of its classes, without namespaces."""
    names = [cursor.spelling]
    while cursor.semantic_parent is not None and cursor.semantic_parent.kind in SCOPES and \
            cursor.semantic_parent.kind != Kind.NAMESPACE:
        cursor = cursor.semantic_parent
        names.insert(0, cursor.spelling)
    return "::".join(filter(None, names))


def changed_letter(literal, rng):
    """The literal with one of its letters replaced; None if it has none."""
    taken = set()
    for match in NOT_LETTERS.finditer(literal):
        taken.update(range(match.start(), match.end()))
    first = literal.index('"') + 1
    letters = [i for i in range(first, len(literal) - 1)
               if literal[i].isalnum() and literal[i].isascii() and i not in taken]
    if not letters:
        return None
    i = rng.choice(letters)
    other = {"z": "y", "Z": "Y", "9": "8"}.get(literal[i]) or chr(ord(literal[i]) + 1)
    return literal[:i] + other + literal[i + 1:]


class Finder:
    """Collects the sites of all files of a folder."""

    def __init__(self, root, rng):
        self.root = Path(root)
        self.folder = self.root / "provider" / "src"
        self.flags = cross_flags(root)
        self.rng = rng
        self.texts = {}
        self.masks = {}
        self.bodies = {}     # file: ranges of code that runs, and their functions
        self.forbidden = {}  # file: ranges in which nothing may stand but constants
        self.sites = {}
        self.seen = set()

    def find_all(self):
        index = cindex.Index.create()
        # The build makes this header; clang reads the sources without one.
        version = (str(self.folder / "version.h"), '#define NV_VERSION_TEXT "0.0.0"\n')
        for source in sorted(self.folder.rglob("*.cpp")):
            if source.name == "lock_order.cpp":
                continue  # a check of the tests' build, no part of the module
            unit = index.parse(str(source), self.flags, [version])
            wrong = [d for d in unit.diagnostics if d.severity >= cindex.Diagnostic.Error]
            if wrong:
                raise RuntimeError(f"clang cannot read {source.name}: {wrong[0]}")
            self.read(unit)
        for name in sorted(self.texts):
            self.find_by_text(name)
        return sorted(self.sites.values(), key=lambda site: (site.file, site.begin, site.end,
                                                             site.kind, site.after))

    def name_of(self, cursor):
        file = cursor.location.file
        path = Path(file.name) if file else None
        if path is None or not path.is_relative_to(self.folder):
            return None
        name = str(path.relative_to(self.folder))
        if name not in self.texts:
            # Offsets are bytes; the sources are ASCII.
            text = path.read_bytes().decode("ascii")
            self.texts[name] = text
            self.masks[name] = mask(text)
            self.bodies[name] = []
            self.forbidden[name] = [(match.start(), closing(self.masks[name], match.end() - 1))
                                    for match in MACRO.finditer(self.masks[name])]
        return name

    def read(self, unit):
        declarations = [(self.name_of(cursor), cursor) for cursor in unit.cursor.get_children()]
        for name, cursor in declarations:
            if name is not None and name not in self.seen:
                self.read_declaration(name, cursor)
        self.seen |= {name for name, _ in declarations}

    def read_declaration(self, name, cursor):
        if cursor.kind in SCOPES:
            for child in cursor.get_children():
                self.read_declaration(name, child)
        elif cursor.kind in FUNCTIONS:
            self.read_function(name, cursor)

    def read_function(self, name, cursor):
        body = next((c for c in cursor.get_children() if c.kind == Kind.COMPOUND_STMT), None)
        if body is None:
            return
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        head = self.masks[name][begin:body.extent.start.offset]
        if re.search(r"\b(constexpr|consteval)\b", head):
            return
        # A constructor's list of members runs as well.
        colon = re.search(r"\)\s*:(?!:)", head) if cursor.kind == Kind.CONSTRUCTOR else None
        begin = begin + colon.end() if colon else body.extent.start.offset
        self.bodies[name].append((begin, end, qualified(cursor)))
        self.walk(name, cursor)

    def walk(self, name, cursor):
        text = self.texts[name]
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        kind = cursor.kind
        if kind == Kind.STATIC_ASSERT or (
                kind == Kind.VAR_DECL and re.search(r"\bconstexpr\b", text[begin:end])):
            self.forbidden[name].append((begin, end))
            return
        children = list(cursor.get_children())
        if kind == Kind.CASE_STMT and children:
            self.forbidden[name].append((children[0].extent.start.offset,
                                         children[0].extent.end.offset))
        if kind == Kind.VAR_DECL and cursor.type.kind == cindex.TypeKind.CONSTANTARRAY:
            bracket = text.find("[", begin)
            if begin <= bracket < end:
                self.forbidden[name].append((bracket, closing(text, bracket)))
        if kind == Kind.CALL_EXPR:
            self.forbidden[name] += self.without_effect(cursor, children)
        if kind in (Kind.BINARY_OPERATOR, Kind.CALL_EXPR, Kind.UNEXPOSED_EXPR):
            self.operator(name, begin, end, children)
        if kind == Kind.CXX_UNARY_EXPR and text.startswith("sizeof", begin):
            self.add(name, begin, end, "constant", f"{text[begin:end]} - 1")
        if kind == Kind.DECL_REF_EXPR and self.is_named_constant(cursor):
            self.add(name, begin, end, "constant", f"{text[begin:end]} + 1")
        if kind in (Kind.IF_STMT, Kind.WHILE_STMT):
            self.condition(name, begin)
        if kind == Kind.COMPOUND_STMT:
            for child in children:
                self.statement(name, child)
        elif kind in (Kind.IF_STMT, Kind.WHILE_STMT, Kind.FOR_STMT, Kind.CXX_FOR_RANGE_STMT):
            head = closing(self.masks[name], self.masks[name].index("(", begin))
            for child in children:
                if child.extent.start.offset >= head:
                    self.statement(name, child)
        for child in children:
            self.walk(name, child)

    @staticmethod
    def without_effect(cursor, children):
        """What no result depends on: how much is reserved, and the size of a buffer that is larger than any
        text in it."""
        if cursor.spelling == "reserve":
            parts = [cursor]
        elif cursor.spelling in PRINTING:
            parts = children[2:3]  # the function, the buffer, its size
        else:
            return []
        return [(part.extent.start.offset, part.extent.end.offset) for part in parts]

    def is_named_constant(self, cursor):
        """A number with a name, spelt where it is used: constexpr CK_ULONG maxFoundObjects."""
        what = cursor.referenced
        if what is None or what.kind != Kind.VAR_DECL or self.name_of(what) is None:
            return False
        integers = (cindex.TypeKind.UINT, cindex.TypeKind.INT, cindex.TypeKind.ULONG,
                    cindex.TypeKind.LONG, cindex.TypeKind.ULONGLONG, cindex.TypeKind.LONGLONG)
        declared = self.texts[self.name_of(what)][what.extent.start.offset:what.extent.end.offset]
        return "constexpr" in declared and what.type.get_canonical().kind in integers

    def operator(self, name, begin, end, children):
        text = self.masks[name]
        parts = [(c.extent.start.offset, c.extent.end.offset) for c in children]
        parts = [p for p in parts if begin <= p[0] <= p[1] <= end and
                 text[p[0]:p[1]].strip() not in FLIPPED]
        for left, right in zip(parts, parts[1:]):
            sign = text[left[1]:right[0]].strip()
            if sign in FLIPPED and left[0] == begin and right[1] == end:
                source = self.texts[name]
                after = f"{source[begin:left[1]]} {FLIPPED[sign]} {source[right[0]:end]}"
                if sign in ("&&", "||"):
                    after = f"({source[begin:left[1]]}) {FLIPPED[sign]} ({source[right[0]:end]})"
                self.add(name, begin, end, "comparison", after)
                return

    def condition(self, name, begin):
        text = self.masks[name]
        opening = text.find("(", begin)
        if not re.fullmatch(r"(if|while)\s*", text[begin:opening]):
            return
        last = closing(text, opening) - 1
        first = max(text.rfind(";", opening, last), opening) + 1
        first += len(text[first:last]) - len(text[first:last].lstrip())
        condition = text[first:last]
        if re.search(r"[^=!<>]=[^=]", condition) and ";" not in text[opening:last]:
            return  # it declares something
        if re.search(r"[=!]=|[<>]", condition) and not re.search(r"&&|\|\|", condition):
            return  # a comparison, which is turned round by its sign
        if re.fullmatch(r"!\s*[\w.>:\-]+(\(.*\))?", condition, re.S):
            after = self.texts[name][first + 1:last]
        else:
            after = f"!({self.texts[name][first:last]})"
        self.add(name, first, last, "comparison", after,
                 whole=f"(nvMutant(NUMBER) ? static_cast<bool>({flat(after)}) : "
                       f"static_cast<bool>({self.texts[name][first:last]}))")

    def statement(self, name, cursor):
        """A call or an assignment that stands for itself."""
        if cursor.kind not in (Kind.CALL_EXPR, Kind.UNEXPOSED_EXPR, Kind.BINARY_OPERATOR,
                               Kind.COMPOUND_ASSIGNMENT_OPERATOR, Kind.CXX_DELETE_EXPR):
            return
        text = self.masks[name]
        begin, end = cursor.extent.start.offset, cursor.extent.end.offset
        behind = text.find(";", end)
        before = text[:begin].rstrip()
        if behind < 0 or text[end:behind].strip() or not before or (
                before[-1] not in "{};):" and not before.endswith("else")):
            return
        if text[begin:behind].startswith("NV_") or cursor.spelling == "reserve":
            return
        original = self.texts[name][begin:behind + 1]
        self.add(name, begin, behind + 1, "statement", "removed",
                 whole=f"{{ if (!nvMutant(NUMBER)) {{ {original} }} }}")

    def find_by_text(self, name):
        masked, text = self.masks[name], self.texts[name]
        self.find_log_calls(name)
        for match in STATUS.finditer(masked):
            self.add(name, match.start(), match.end(), "status", self.other_status(match.group()))
        for match in ANSWER.finditer(masked):
            other = {"true": "false", "false": "true"}[match.group(1)]
            self.add(name, match.start(1), match.end(1), "status", other)
        for match in NUMBER.finditer(masked):
            after = str(int(re.sub(r"[uUlL]+$", "", match.group()), 0) + 1)
            self.add(name, match.start(), match.end(), "constant", after)
        for match in re.finditer(r'L?"[^"\n]*"', masked):
            begin, end = match.span()
            alone = not masked[:begin].rstrip().endswith('"') and \
                not masked[end:].lstrip().startswith('"') and text[begin - 1] != "u"
            after = changed_letter(text[begin:end], self.rng) if alone else None
            if after:
                self.add(name, begin, end, "text", after)

    def other_status(self, name):
        if name == "ERROR_SUCCESS":
            return "NTE_INTERNAL_ERROR"
        if name == "CKR_OK":
            return "CKR_GENERAL_ERROR"
        others = STATUSES if name.startswith("NTE_") else RESULTS
        return self.rng.choice([other for other in others if other != name])

    def find_log_calls(self, name):
        masked, text = self.masks[name], self.texts[name]
        for pattern in (LOG_CALL, LOG_CALL_AFTER_ELSE):
            for match in pattern.finditer(masked):
                begin, end = match.start(1), closing(masked, match.end() - 1)
                if not masked[end:].lstrip().startswith(";"):
                    continue
                end = masked.index(";", end) + 1
                original = text[begin:end]
                self.add(name, begin, end, "statement", "removed", log=True,
                         whole=f"{{ if (!nvMutant(NUMBER)) {{ {original} }} }}")
                literals = list(re.finditer(r'"[^"\n]*"', masked[begin:end]))
                literal = self.rng.choice(literals) if literals else None
                changed = changed_letter(original[slice(*literal.span())], self.rng) \
                    if literal else None
                if changed:
                    after = original[:literal.start()] + changed + original[literal.end():]
                    self.add(name, begin, end, "text", after, log=True,
                             whole=f"{{ if (!nvMutant(NUMBER)) {{ {original} }} "
                                   f"else {{ {flat(after)} }} }}")

    def add(self, name, begin, end, kind, after, whole=None, log=False):
        functions = [function for first, last, function in self.bodies[name]
                     if first <= begin and end <= last]
        if not functions:
            return
        if any(self.hinders(span, begin, end, log) for span in self.forbidden[name]):
            return
        text = self.texts[name][begin:end]
        code = re.sub(r'"[^"]*"', "", text)
        if any(sign in code for sign in ("//", "/*", "#")):
            return
        if whole is None:
            whole = f"(nvMutant(NUMBER) ? ({flat(after)}) : ({text}))"
        line = self.texts[name].count("\n", 0, begin) + 1
        self.sites.setdefault((name, begin, end, kind, after), Site(
            name, functions[-1], begin, end, line, kind, squeezed(text), squeezed(after), whole))

    @staticmethod
    def hinders(span, begin, end, log):
        """Whether a forbidden place keeps a change away. A log call is a macro itself, and may hold
        others; only one around it counts."""
        first, last = span
        if log:
            return first < begin and end <= last
        return first < end and begin < last
