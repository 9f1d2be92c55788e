"""Runs the tests against the mutants: first all of them without any, to learn which test reaches
which change, then for each mutant those tests, the quickest first, until one objects."""

import hashlib
import json
import queue
import re
import subprocess
import threading
from dataclasses import dataclass

import report
from wine import Place

LIMIT_FACTOR = 5
SHORTEST_LIMIT = 20  # seconds


@dataclass
class Entry:
    """One test of CTest, or all those that only start one program with different cases."""

    name: str
    command: list
    environment: dict
    seconds: float = 0
    reached: frozenset = frozenset()

    @property
    def limit(self):
        return max(SHORTEST_LIMIT, LIMIT_FACTOR * self.seconds)


def read_entries(build, place):
    """The tests of CTest, and the commands that have to run before them."""
    listed = subprocess.run(["ctest", "--show-only=json-v1"], cwd=build, env=place.environment,
                            check=True, capture_output=True, text=True).stdout
    entries, fixtures = {}, []
    for test in json.loads(listed)["tests"]:
        properties = {p["name"]: p["value"] for p in test.get("properties", [])}
        environment = dict(pair.split("=", 1) for pair in properties.get("ENVIRONMENT", []))
        command = test.get("command")
        if command is None:
            raise RuntimeError(f"{test['name']} has no program: is everything built?")
        if "FIXTURES_SETUP" in properties:
            fixtures.append(command)
            continue
        name = test["name"]
        if any(re.fullmatch(r"--gtest_filter=[^*]*", word) for word in command):
            command = command[:next(i for i, word in enumerate(command)
                                    if word.startswith("--gtest"))]
            name = name.split(".")[0]
        entries.setdefault(name, Entry(name, command, environment))
    return list(entries.values()), fixtures


def in_parallel(places, tasks, work):
    """work(place, task) for every task, as many at a time as there are places."""
    waiting = queue.Queue()
    for task in tasks:
        waiting.put(task)
    errors = []

    def serve(place):
        while not errors:
            try:
                work(place, waiting.get_nowait())
            except queue.Empty:
                return
            except Exception as error:  # shown by the caller
                errors.append(error)

    threads = [threading.Thread(target=serve, args=[place], daemon=True) for place in places]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    if errors:
        raise errors[0]


class Recorder:
    """Learns which entry reaches which mutants; what is known of an unchanged program is kept."""

    def __init__(self, folder, build, say):
        self.path = folder / "reached.json"
        self.folder = folder / "record"
        self.module = build / "checked" / "nvksprovider.dll"
        self.known = json.loads(self.path.read_text()) if self.path.exists() else {}
        self.say = say
        self.lock = threading.Lock()

    def mark(self, entry):
        digest = hashlib.sha256(self.module.read_bytes())
        for word in entry.command:
            if word.endswith(".exe"):
                with open(word, "rb") as file:
                    digest.update(file.read())
        return digest.hexdigest()

    def record(self, place, entry):
        mark = self.mark(entry)
        known = self.known.get(entry.name)
        if known is None or known["mark"] != mark:
            known = self.run(place, entry, mark)
        entry.seconds = known["seconds"]
        entry.reached = frozenset(known["reached"])

    def run(self, place, entry, mark):
        base = self.folder / entry.name.replace("/", "_")
        for old in self.folder.glob(base.name + ".*"):
            old.unlink()
        where = "Z:" + str(base).replace("/", "\\")
        for _ in range(2):
            run = place.run(entry.command, 600, entry.environment | {"NV_MUTANT_RECORD": where})
            if run.passed:
                break
            place.clear_store()
        else:
            raise RuntimeError(f"{entry.name} fails without any change:\n{run.output[-3000:]}")
        numbers = set()
        for file in self.folder.glob(base.name + ".*"):
            numbers.update(map(int, file.read_text().split()))
        known = {"mark": mark, "seconds": run.seconds, "reached": sorted(numbers)}
        with self.lock:
            self.known[entry.name] = known
            self.path.write_text(json.dumps(self.known))
            self.say(f"{entry.name}: {run.seconds:.1f} s, reaches {len(numbers)} changes")
        return known


def case_of(run):
    """The case of GoogleTest in which a run ended badly; None if there was none."""
    failed = re.findall(r"^\[  FAILED  \] ([\w./]+)", run.output, re.M)
    begun = re.findall(r"^\[ RUN      \] ([\w./]+)", run.output, re.M)
    return failed[0] if failed else begun[-1] if begun else None


class Judge:
    def __init__(self, entries):
        self.entries = sorted(entries, key=lambda entry: entry.seconds)

    def judge(self, place, number):
        """What becomes of a mutant, as a row of the results."""
        able = [entry for entry in self.entries if number in entry.reached]
        if not able:
            return {"number": number, "outcome": "unreached"}
        ran, doubts = [], []
        for entry in able:
            run = place.run(entry.command, entry.limit,
                            entry.environment | {"NV_MUTANT": str(number)})
            ran.append(entry.name)
            if run.passed:
                continue
            case = case_of(run)
            if self.confirmed(place, entry, number, case):
                how = "hang" if run.timed_out else "failure" if "[  FAILED  ]" in run.output \
                    else "crash"
                return {"number": number, "outcome": "killed", "by": entry.name, "case": case,
                        "how": how}
            doubts.append(f"{entry.name} {case}")
        if doubts:
            return {"number": number, "outcome": "unclear", "ran": ran, "doubts": doubts}
        return {"number": number, "outcome": "survived", "ran": ran}

    def confirmed(self, place, entry, number, case):
        """A failure counts if it comes again, and only with the mutant: the machine is shared, and
        the mutant may have left something in the prefix."""
        command = entry.command
        if case is not None:
            command = [w for w in command if not w.startswith("--gtest_filter")]
            command = command + [f"--gtest_filter={case}"]
        mutated = entry.environment | {"NV_MUTANT": str(number)}
        again = place.run(command, entry.limit, mutated)
        if again.passed and case is not None:
            again = place.run(entry.command, entry.limit, mutated)  # needs those before it
        if again.passed:
            return False
        place.clear_store()
        return place.run(command, entry.limit, entry.environment).passed


def tests_mark(root):
    """Changes with any source of the tests."""
    digest = hashlib.sha256()
    for path in sorted((root / "tests").rglob("*")):
        if path.is_file():
            digest.update(path.name.encode() + path.read_bytes())
    return digest.hexdigest()


def open_numbers(folder, mutants, only, tests):
    """The mutants that no test has killed yet and that these tests have not met."""
    results = report.read_results(folder)
    for number, site in sorted(mutants.items()):
        row = results.get(number, {})
        tried = row.get("outcome") == "killed" or row.get("tests") == tests
        if not tried and (only is None or only.search(report.describe(site))):
            yield number


def run_all(root, folder, tree, mutants, options, say):
    tests = tests_mark(root)
    numbers = list(open_numbers(folder, mutants, options.only, tests))
    if not numbers:
        return
    places = [Place(root, folder, tree.build, n) for n in range(options.workers)]
    (folder / "record").mkdir(exist_ok=True)
    try:
        for place in places:
            say(f"Wine prefix {place.prefix}")
            place.start()
        entries, fixtures = read_entries(tree.build, places[0])
        for command in fixtures:
            places[0].call(*command)
        say(f"{len(entries)} entries without any change")
        recorder = Recorder(folder, tree.build, say)
        in_parallel(places, entries, recorder.record)
        judge = Judge(entries)
        lock = threading.Lock()
        done = [0]

        def try_one(place, number):
            row = judge.judge(place, number) | {"tests": tests}
            with lock:
                report.append_result(folder, row)
                done[0] += 1
                say(f"{done[0]}/{len(numbers)} {row['outcome']} {number}: "
                    f"{report.describe(mutants[number])} "
                    f"{row.get('by', '')} {row.get('case') or ''}")

        in_parallel(places, numbers, try_one)
    finally:
        for place in places:
            place.stop()
