#!/usr/bin/python3
"""Prints the functions of the module with lines or branches that no test has run. Called by coverage.sh.

Usage: missing.py EXPORT, where EXPORT is what "llvm-cov export" writes. A function that is instantiated
several times counts as run where any of its instances ran.
"""

import json
import re
import subprocess
import sys
from collections import defaultdict


def demangled(names):
    result = subprocess.run(["c++filt"], input="\n".join(names), text=True, capture_output=True, check=True)
    return dict(zip(names, result.stdout.splitlines()))


def short(name):
    """The qualified name without parameters, lambdas as such."""
    return re.sub(r"\(.*", "", name.replace("(anonymous namespace)::", ""))


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        functions = json.load(file)["data"][0]["functions"]
    names = demangled([function["name"].split(":")[-1] for function in functions])
    # By place in the source: how often any instance ran it.
    regions, branches, owners = defaultdict(int), defaultdict(int), {}
    for function in functions:
        if "provider/src/" not in function["filenames"][0]:
            continue
        file = function["filenames"][0].split("provider/src/")[-1]
        owner = (file, short(names[function["name"].split(":")[-1]]))
        for begin, column, end, endColumn, count, _, _, kind in function["regions"]:
            if kind == 0:
                key = (file, begin, column, end, endColumn)
                regions[key] += count
                owners.setdefault(key, owner)
        for begin, column, end, endColumn, yes, no, fileId, *_ in function["branches"]:
            for side, count in (("true", yes), ("false", no)):
                key = (file, begin, column, end, endColumn, fileId, side)
                branches[key] += count
                owners.setdefault(key, owner)
    missing = defaultdict(list)
    for key, count in regions.items():
        if count == 0:
            missing[owners[key]].append(f"line {key[1]}")
    for key, count in branches.items():
        if count == 0:
            missing[owners[key]].append(f"line {key[1]} never {key[-1]}")
    for (file, name), places in sorted(missing.items()):
        print(f"{file}: {name}: {', '.join(sorted(set(places), key=lambda p: int(p.split()[1])))}")


if __name__ == "__main__":
    main()
