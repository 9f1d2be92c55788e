#!/usr/bin/python3
"""Compares the tables of docs/tokens.md with the results of the tests, or writes them.

    page.py FOLDER [--large]

FOLDER has the results of kind.sh, KIND/results.tsv for each kind of token, and with --large those of the
larger keys. The page has a line <!-- table: NAME --> and a line <!-- end of table --> around each table, and
what stands between them comes from here. The status is 1 if the page differs, if a result has no explanation
in notes.txt or more than one, or if an explanation has no result. With KEYWARDEN_REWRITE_PAGES=1 in the
environment, the tables are written instead of compared.
"""

import difflib
import os
import re
import subprocess
import sys
from fnmatch import fnmatchcase
from pathlib import Path

HERE = Path(__file__).resolve().parent
PAGE = HERE.parents[2] / "docs" / "tokens.md"
BEHAVIOURS = ("classic", "modern")

# The name, the heading in the overview, and the Debian packages whose versions the tables are of.
KINDS = {
    "softhsm": ("SoftHSM2", {"SoftHSM2": "softhsm2"}),
    "nss": ("NSS softoken", {"NSS": "libnss3"}),
    "tpm": ("TPM 2.0", {"tpm2-pkcs11": "libtpm2-pkcs11-1", "swtpm": "swtpm"}),
    "p11kit": ("p11-kit server", {"p11-kit": "p11-kit", "SoftHSM2": "softhsm2"}),
}

OPERATIONS = {
    "open": "open the provider",
    "open@bare": "open it, with a library without parameters",
    "list": "list the keys",
    "list@slots": "list them, with the usual parameters",
    "sign-pkcs1": "sign, RSA PKCS #1",
    "sign-pss": "sign, RSA PSS",
    "sign-ecdsa": "sign, ECDSA",
    "verify-pkcs1": "verify, RSA PKCS #1",
    "verify-pss": "verify, RSA PSS",
    "verify-ecdsa": "verify, ECDSA",
    "encrypt-pkcs1": "encrypt, PKCS #1",
    "encrypt-oaep-sha1": "encrypt, OAEP with SHA-1",
    "encrypt-oaep-sha256": "encrypt, OAEP with SHA-256",
    "decrypt-pkcs1": "decrypt, PKCS #1",
    "decrypt-oaep-sha1": "decrypt, OAEP with SHA-1",
    "decrypt-oaep-sha256": "decrypt, OAEP with SHA-256",
    "agree": "agree on a secret, ECDH",
    "wrong-pin": "sign with a wrong PIN",
    "no-key": "sign with a certificate without a key",
    "unknown-name": "open a key of an unknown name",
}
# A token must refuse these; the table has the status.
REFUSED = {"wrong-pin", "no-key", "unknown-name"}

problems = []


def results_of(folder):
    """What each operation answered in each behaviour: (answer, function, result)."""
    results = {}
    lines = (folder / "results.tsv").read_text(encoding="utf-8").splitlines()
    for operation, behaviour, *outcome in (line.split("\t") for line in lines):
        if operation not in OPERATIONS:
            problems.append(f"{folder.name}: page.py does not know the operation {operation}")
        if (operation, behaviour) in results:
            problems.append(f"{folder.name}: {operation} has two results in {behaviour}")
        results[operation, behaviour] = tuple(outcome)
    for operation in {operation for operation, _ in results} | {o for o in OPERATIONS if "@" not in o}:
        for behaviour in BEHAVIOURS:
            if (operation, behaviour) not in results:
                problems.append(f"{folder.name}: {operation} has no result in {behaviour}")
                results[operation, behaviour] = ("no result", "", "")
    return results


def fails(operation, outcome):
    return operation not in REFUSED and outcome[0] != "works"


class Notes:
    def __init__(self):
        self.rows = []
        for line in (HERE / "notes.txt").read_text(encoding="utf-8").splitlines():
            if line and not line.startswith("#"):
                kinds, operations, result, text = (part.strip() for part in line.split("|", 3))
                self.rows.append((kinds.split(), operations.split(), result, text))
        # Every kind and every result of a row needs a use.
        self.unused = {(number, kind) for number, row in enumerate(self.rows) for kind in row[0]}

    def text(self, kind, operation, outcome):
        """The text for a failed result."""
        result = outcome[2] or outcome[0]
        found = []
        for number, (kinds, operations, expected, text) in enumerate(self.rows):
            if kind in kinds and result == expected \
                    and any(fnmatchcase(operation, pattern) for pattern in operations):
                self.unused.discard((number, kind))
                found.append(text)
        if len(found) != 1:
            problems.append(f"notes.txt: {len(found)} lines for {kind} | {operation} | {result}")
            return "?"
        return found[0]

    def check(self):
        for number, kind in sorted(self.unused):
            problems.append(f"notes.txt: no result of {kind} needs: {self.rows[number][3]}")


def cell(operation, outcome):
    answer, function, result = outcome
    status = f"`{answer}`" if "_" in answer or answer.startswith("0x") else answer
    if operation in REFUSED:
        return status
    if answer == "works":
        return "works"
    call = f" (`{function}`: `{result}`)" if function else ""
    return f"no: {status}{call}"


def table(kind, results, notes):
    rows = ["| operation | classic | modern | note |", "| --- | --- | --- | --- |"]
    texts = []
    for operation, title in OPERATIONS.items():
        if (operation, "classic") not in results:
            continue
        outcomes = [results[operation, behaviour] for behaviour in BEHAVIOURS]
        numbers = set()
        for outcome in outcomes:
            if fails(operation, outcome):
                text = notes.text(kind, operation, outcome)
                if text not in texts:
                    texts.append(text)
                numbers.add(texts.index(text) + 1)
        cells = [title, *(cell(operation, outcome) for outcome in outcomes),
                 ", ".join(map(str, sorted(numbers)))]
        rows.append("| " + " | ".join(cells).rstrip() + " |")
    versions = ", ".join(f"{name} {version(package)}" for name, package in KINDS[kind][1].items())
    numbered = [f"{number}. {text}" for number, text in enumerate(texts, 1)]
    return "\n".join(["", f"Tested with {versions}.", "", *rows, "", *numbered, ""])


def overview(all_results):
    kinds = list(KINDS)
    rows = ["| operation | " + " | ".join(KINDS[kind][0] for kind in kinds) + " |",
            "| --- " * (len(kinds) + 1) + "|"]
    for operation, title in OPERATIONS.items():
        if operation in REFUSED or "@" in operation:
            continue
        cells = []
        for kind in kinds:
            works = [behaviour for behaviour in BEHAVIOURS
                     if not fails(operation, all_results[kind][operation, behaviour])]
            cells.append("yes" if len(works) == 2 else works[0] if works else "no")
        rows.append(f"| {title} | " + " | ".join(cells) + " |")
    return "\n".join(["", *rows, ""])


def version(package):
    """The version of the software, without what Debian adds."""
    text = subprocess.run(["dpkg-query", "-W", "-f", "${Version}", package], check=True,
                          capture_output=True, text=True).stdout
    return re.sub(r"^\d+:|-[^-]*$", "", text)


def filled(page, tables):
    """The page with these tables."""
    for name, text in tables.items():
        block = re.compile(rf"(<!-- table: {name} -->\n).*?(<!-- end of table -->\n)", re.S)
        if len(block.findall(page)) != 1:
            problems.append(f"docs/tokens.md: no place for the table {name}, or two")
        page = block.sub(lambda match, text=text: match[1] + text + match[2], page)
    return page


def differences(old, new):
    lines = difflib.unified_diff(old.splitlines(), new.splitlines(), "docs/tokens.md", "the results",
                                 lineterm="")
    return "\n".join(lines)


def main():
    folder = Path(sys.argv[1])
    suffix = "-large" if "--large" in sys.argv[2:] else ""
    notes = Notes()
    all_results = {kind: results_of(folder / (kind + suffix)) for kind in KINDS}
    tables = {kind: table(kind, all_results[kind], notes) for kind in KINDS}
    tables["overview"] = overview(all_results)
    notes.check()
    page = PAGE.read_text(encoding="utf-8")
    new = filled(page, tables)
    if os.environ.get("KEYWARDEN_REWRITE_PAGES") == "1" and not suffix:
        PAGE.write_text(new, encoding="utf-8")
        print("docs/tokens.md: written")
    elif new != page:
        print(differences(page, new))
        problems.append("docs/tokens.md differs from the results; KEYWARDEN_REWRITE_PAGES=1 "
                        "ctest --preset windows -R '^token_page$' writes it")
    for problem in problems:
        print(problem)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
