#!/usr/bin/env python3
"""Searches the reports that report_secrets_test left for each secret of its runs.

usage: report_search.py FOLDER

FOLDER has a folder for each behaviour with report.zip, secrets.json, and whole.log, the log as the module wrote
it. What the log shows must be found in whole.log, so that the search itself is tried.
"""
import base64
import json
import re
import subprocess
import sys
import zipfile
from pathlib import Path

# A length of a PIN, or of a property that can be one. Classic and modern write each of them.
LENGTHS = [
    r"Entered Pin is (\d+) bytes",
    r"retrive the entered pin = (\d+)",
    r"verified password\((\d+)",
    r"ARG\[\d\]:pin=(\d+)",
    r"ulPinLen=(\d+)",
    r"Set(?:Key|Provider)Property\[[^]]*\]:ARG\[\d\]:cbInput=(\d+)",
    r"Get(?:Key|Provider)Property\[[^]]*\]:ARG\[\d\]:cbOutput=(\d+)",
    r"Store the value into output buffer \((\d+)",
    r"ARG\[\d\]:size = (\d+)",
    r"src\._data = (\d+)",
]


def forms(secret):
    """The secret as bytes in each form in which a log or a document could show it."""
    raw = bytes.fromhex(secret)
    yield "bytes", raw
    yield "hexadecimal", raw.hex().encode()
    yield "HEXADECIMAL", raw.hex().upper().encode()
    if all(0x20 <= byte < 0x7F for byte in raw):
        yield "UTF-16", raw.decode("ascii").encode("utf-16-le")
        yield "UTF-16 in hexadecimal", raw.decode("ascii").encode("utf-16-le").hex().encode()
    for shift in range(3):
        # Only the characters that the bytes before and after do not change.
        text = base64.b64encode(b"\0" * shift + raw).rstrip(b"=")
        yield f"base64 + {shift}", text[(0, 2, 3)[shift] : len(text) - 1]


def found(secret, content):
    return [name for name, form in forms(secret) if form in content]


def contents(archive):
    with zipfile.ZipFile(archive) as zipped:
        assert zipped.testzip() is None, "Python's zipfile finds a damaged entry"
        return {entry.filename: zipped.read(entry) for entry in zipped.infolist()}


def search(folder):
    archive = folder / "report.zip"
    tested = subprocess.run(["unzip", "-tq", archive], capture_output=True, text=True, check=False)
    problems = [] if tested.returncode == 0 else [f"unzip -t: {tested.stdout}{tested.stderr}"]
    whole = (folder / "whole.log").read_bytes()
    entries = contents(archive)
    logs = [name for name in entries if name.startswith("log/")]
    if len(logs) != 1 or entries[logs[0]].count(b"\n") != whole.count(b"\n"):
        problems.append(f"the log has not the lines of the module's: {logs}")
    secrets = json.loads((folder / "secrets.json").read_text())
    for secret in secrets:
        if secret["logged"] and not found(secret["hex"], whole):
            problems.append(f"{secret['name']} is not in the log, so the search shows nothing")
        for name, content in entries.items():
            for form in found(secret["hex"], content):
                problems.append(f"{name} has the {secret['name']} as {form}")
    for length in LENGTHS:
        if not re.search(length.encode(), whole):
            problems.append(f"no line of the log is {length}")
        for name, content in entries.items():
            if re.search(length.encode(), content):
                problems.append(f"{name} has a line {length}")
    print(f"{folder.name}: {len(secrets)} secrets, {len(LENGTHS)} kinds of lengths, {len(entries)} files, "
          f"{sum(len(content) for content in entries.values())} bytes, {len(problems)} problems")
    return problems


def main():
    folders = sorted(path.parent for path in Path(sys.argv[1]).glob("*/report.zip"))
    if [folder.name for folder in folders] != ["classic", "modern"]:
        sys.exit(f"there are not the reports of both behaviours: {folders}")
    problems = [f"{folder.name}: {text}" for folder in folders for text in search(folder)]
    print("\n".join(problems))
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
