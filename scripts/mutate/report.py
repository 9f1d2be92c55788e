"""What a check has learnt: one line of JSON for each mutant, and the page for people."""

import json
from collections import Counter

import sample

# What became of a mutant, and how the page says it.
OUTCOMES = ("killed", "survived", "unreached", "unclear")


def results_path(folder):
    return folder / "results.jsonl"


def read_results(folder):
    """The latest line of each mutant by number."""
    path = results_path(folder)
    rows = map(json.loads, path.read_text().splitlines()) if path.exists() else []
    return {row["number"]: row for row in rows}


def append_result(folder, row):
    with results_path(folder).open("a") as file:
        file.write(json.dumps(row) + "\n")


def forget(folder):
    for name in ("results.jsonl", "reached.json"):
        (folder / name).unlink(missing_ok=True)


def describe(site):
    return f"{site.file} {site.function} {site.kind}"


def show(folder):
    """Writes the page to build/mutate/report.txt and shows it. Only a finished check gives 0."""
    mutants = sample.read_sample(folder / "sample.json", None)
    if mutants is None:
        print("no check has been run here")
        return 1
    results = {n: row for n, row in read_results(folder).items() if n in mutants}
    lines = []
    for outcome in OUTCOMES[1:]:
        for number, row in sorted(results.items()):
            if row["outcome"] == outcome:
                site = mutants[number]
                lines += [f"{outcome} {number}: {describe(site)}",
                          f"    before: {site.before}", f"    after:  {site.after}"]
                if row.get("ran"):
                    lines.append(f"    no objection from: {' '.join(row['ran'])}")
    lines.append("")
    for kind in sorted({site.kind for site in mutants.values()}):
        of_kind = [n for n, site in mutants.items() if site.kind == kind]
        counted = Counter(results[n]["outcome"] for n in of_kind if n in results)
        lines.append(f"{kind:11} {len(of_kind):4} changes: " +
                     ", ".join(f"{counted[o]} {o}" for o in OUTCOMES if counted[o]))
    counted = Counter(row["outcome"] for row in results.values())
    alive = len(results) - counted["killed"]
    lines.append(f"{len(mutants)} changes, {len(results)} tried: {counted['killed']} killed, "
                 f"{alive} not killed ({100 * alive / max(1, len(results)):.1f} %)")
    page = "\n".join(lines)
    (folder / "report.txt").write_text(page + "\n")
    print(page)
    return 0 if len(results) == len(mutants) else 1
