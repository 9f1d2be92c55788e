"""The mutation check behind scripts/mutate.sh: what it is for and how to call it is said there."""

import argparse
import os
import re
import signal
import sys
import time
from pathlib import Path

import report
import runner
import sample
from tree import Tree, fingerprint

ROOT = Path(__file__).resolve().parents[2]
FOLDER = ROOT / "build" / "mutate"
BEGUN = time.monotonic()


def say(text):
    print(f"[{time.monotonic() - BEGUN:4.0f}s] {text}", flush=True)


def build(tree, mutants, replace):
    """Builds everything that the tests need. A change that the compiler refuses is replaced."""
    tree.write(mutants)
    tree.configure()
    while True:
        say(f"building with {len(mutants)} changes; the compiler's words are in {tree.log}")
        output = tree.compile()
        if output is None:
            return
        refused = tree.at_fault(output, mutants)
        if not refused or replace is None:
            sys.exit(f"the mutated copy does not compile: see {tree.log}")
        say(f"the compiler refuses {len(refused)} changes; others take their places")
        for number in refused:
            replace(number)
        tree.write(mutants)


def prepare(options, tree):
    """The mutants of this run, compiled: those of the last one if the module is still the same."""
    mark = fingerprint(ROOT, options.seed, options.count)
    path = FOLDER / "sample.json"
    mutants = sample.read_sample(path, mark)
    if mutants is not None:
        build(tree, mutants, None)
        return mutants
    say("looking for places to change")
    sampler = sample.Sampler(ROOT, options.seed)
    mutants = {number: sampler.next() for number in range(1, options.count + 1)}
    mutants = {number: site for number, site in mutants.items() if site is not None}

    def replace(number):
        refused = mutants.pop(number)
        site = sampler.next()
        sampler.drop(refused)
        if site is not None:
            mutants[number] = site

    build(tree, mutants, replace)
    # What was learnt about other sources says nothing about these.
    report.forget(FOLDER)
    sample.write_sample(path, mark, mutants)
    return mutants


def parse_options():
    parser = argparse.ArgumentParser(prog="scripts/mutate.sh")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=250)
    parser.add_argument("--only", metavar="REGEX", type=re.compile)
    parser.add_argument("--workers", type=int, default=os.cpu_count())
    parser.add_argument("--report", action="store_true")
    return parser.parse_args()


def main():
    options = parse_options()
    FOLDER.mkdir(parents=True, exist_ok=True)
    if options.report:
        return report.show(FOLDER)
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: sys.exit("interrupted; another call goes on from here"))
    tree = Tree(ROOT, FOLDER)
    mutants = prepare(options, tree)
    runner.run_all(ROOT, FOLDER, tree, mutants, options, say)
    return report.show(FOLDER)


if __name__ == "__main__":
    sys.exit(main())
