"""Chooses the changes of a run: by a seed, balanced over kinds and files."""

import json
import random
from collections import Counter
from dataclasses import asdict

from sites import KINDS, Finder, Site


class Sampler:
    """Hands out sites that do not overlap, one kind after the other, each time of the file that has
    had the fewest for its length. The same seed gives the same order."""

    def __init__(self, root, seed):
        rng = random.Random(seed)
        finder = Finder(root, rng)
        self.waiting = {}
        for site in finder.find_all():
            self.waiting.setdefault((site.kind, site.file), []).append(site)
        for sites in self.waiting.values():
            rng.shuffle(sites)
        self.lines = {name: text.count("\n") for name, text in finder.texts.items()}
        self.taken = Counter()
        self.chosen = []
        self.turn = 0

    def next(self):
        for _ in KINDS:
            kind = KINDS[self.turn % len(KINDS)]
            self.turn += 1
            site = self.next_of(kind)
            if site is not None:
                return site
        return None

    def next_of(self, kind):
        files = [file for (of, file), sites in self.waiting.items() if of == kind and sites]
        while files:
            file = min(files, key=lambda name: ((self.taken[name] + 1) / self.lines[name], name))
            sites = self.waiting[kind, file]
            while sites:
                site = sites.pop()
                if not self.overlaps(site):
                    self.chosen.append(site)
                    self.taken[file] += 1
                    return site
            files.remove(file)
        return None

    def overlaps(self, site):
        return any(site.file == other.file and site.begin < other.end and other.begin < site.end
                   for other in self.chosen)

    def drop(self, site):
        """Takes back a site that the compiler refused; its place may be used by others."""
        self.chosen.remove(site)
        self.taken[site.file] -= 1


def write_sample(path, fingerprint, mutants):
    rows = [dict(asdict(site), number=number) for number, site in sorted(mutants.items())]
    path.write_text(json.dumps({"fingerprint": fingerprint, "mutants": rows}, indent=1) + "\n")


def read_sample(path, fingerprint):
    """The mutants of an earlier run by number; None if it was of other sources or options.
    Without a fingerprint, whatever there is."""
    if not path.exists():
        return None
    content = json.loads(path.read_text())
    if fingerprint not in (None, content["fingerprint"]):
        return None
    return {row.pop("number"): Site(**row) for row in content["mutants"]}
