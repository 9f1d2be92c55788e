#!/usr/bin/env python3
"""Compares the lines that the module can write to its log with what "keywarden report" knows of them, and the
table of the lines that show secrets with the page that lists it.

usage: trace_lines.py ROOT
"""
import re
import sys
from pathlib import Path

STRING = r'"((?:[^"\\]|\\.)*)"'
LEVEL_CALL = re.compile(r"\bNV_(?:SEV|ERR|WRN|INF|DBG|TRC|UNDER|CLEAN_UP|LINE)\(")
ARGUMENT = re.compile(r"\b(?:number|text|flagBits|bareFlagBits|byteCount|pointer)\(\s*" + STRING)

# Formats that are put together from texts in other places; a run with all operations shows those
# (report_secrets_test), and known_lines.cpp has each of them.
COMPOSED = {"%", "%%", "%(%)", "%%(bytes)", "% [%]", "% recieved, length=% bytes",
            "DONE, STATUS=0x%, ELAPSED:%(ms)%", "CALL %(): Result = %, Elapsed [% msec]"}


def bare(form):
    """The form with % for each value, so that formats of printf and forms of the tool compare."""
    text = re.sub(r"%[-+ #]*\d*(?:\.(?:\d+|\*))?l*[a-zA-Z!]", "%", form.replace("\\n", ""))
    return text.replace('\\"', '"').strip().rstrip(",")


def call_at(text, begin):
    """The text of a call's arguments, up to its closing parenthesis."""
    depth, inside, at = 1, False, begin
    while depth > 0:
        c = text[at]
        if inside and c == "\\":
            at += 1
        elif c == '"':
            inside = not inside
        elif not inside:
            depth += (c == "(") - (c == ")")
        at += 1
    return text[begin:at - 1]


def formats_of_module(source):
    formats, arguments = {}, set()
    for path in sorted([*source.rglob("*.cpp"), *source.rglob("*.h")]):
        if path.name == "trace.h":
            continue
        text = path.read_text(encoding="utf-8")
        for match in LEVEL_CALL.finditer(text):
            literal = re.search(STRING + r"(?:\s*" + STRING + ")*", call_at(text, match.end()))
            if literal:
                whole = "".join(re.findall(STRING, literal.group(0)))
                formats.setdefault(bare(whole), f"{path.name}: {whole}")
        arguments.update(ARGUMENT.findall(text))
    return formats, arguments


def block(text, name):
    return text[text.index(name):].split("\n};", 1)[0]


def secret_rows(text):
    rows = re.findall(r"^    \{" + STRING + ", " + STRING + r", Shown::(\w+), " + STRING + r"\},$", text, re.M)
    return [tuple(cell.replace('\\"', '"') for cell in row) for row in rows]


def rows_of_page(page):
    section = page.read_text(encoding="utf-8").split("## What in the log is secret\n", 1)[1].split("\n## ", 1)[0]
    lines = [line for line in section.splitlines() if line.startswith("|")]
    return [tuple(cell.strip() for cell in line.strip("|").split(" | ")) for line in lines[2:]]


def row_of_page(functions, form, meaning):
    names = ", ".join(f"`{name}`" for name in functions.split()) or "any operation"
    line = form.replace("%!", "...").replace("%d", "n").strip()
    return names, f"`{line}`", meaning


def main():
    root = Path(sys.argv[1])
    formats_folder = root / "tools/keywarden/formats"
    known = (formats_folder / "known_lines.cpp").read_text(encoding="utf-8")
    secret = secret_rows((formats_folder / "secret_lines.cpp").read_text(encoding="utf-8"))
    known_forms = {bare(form) for form in re.findall(STRING, block(known, "knownForms[]"))}
    known_forms |= {bare(form) for _, form in
                    re.findall(r"\{" + STRING + ", " + STRING + r"\}", block(known, "linesOfFunctions[]"))}
    secret_forms = {bare(form) for _, form, _, _ in secret}
    names = set(" ".join(re.findall(STRING, block(known, "knownArguments[]"))).split())
    names |= set(re.findall(r"ARG\[%d\]:(\w+)", " ".join(row[1] for row in secret)))

    problems = []
    formats, arguments = formats_of_module(root / "provider/src")
    if len(formats) < 300 or len(arguments) < 100:
        problems.append(f"only {len(formats)} formats and {len(arguments)} arguments found: is this script right?")
    pin = "Entered Pin=%"  # the rest of the line is taken out, too
    for form, place in formats.items():
        if form not in known_forms | secret_forms | COMPOSED and not form.startswith(pin):
            problems.append(f"not known: {place}: add it to secret_lines.cpp if it shows a secret, else to known_lines.cpp")
    both = known_forms & secret_forms
    problems += [f"in both tables: {form}" for form in sorted(both)]
    problems += [f"an argument that is not known: {name}" for name in sorted(arguments - names)]

    rows = [row_of_page(functions, form, meaning) for functions, form, _, meaning in secret]
    listed = rows_of_page(root / "docs/operations.md")
    problems += [f"docs/operations.md does not list: {' | '.join(row)}" for row in rows if row not in listed]
    problems += [f"docs/operations.md lists what the table does not have: {' | '.join(row)}"
                 for row in listed if row not in rows]
    if not problems and listed != rows:
        problems.append("docs/operations.md has not the rows of secret_lines.cpp in their order")
    print("\n".join(problems))
    print(f"{len(formats)} formats, {len(arguments)} arguments, {len(rows)} rows, {len(problems)} problems")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
