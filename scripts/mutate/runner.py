"""Runs the tests against the mutants: first all of them without any, to learn which test reaches
which change, then for each mutant those tests, the quickest first, until one objects."""

import hashlib
import json
import queue
import re
import subprocess
import threading
import time
from dataclasses import dataclass, field

import report
from wine import Place

LIMIT_FACTOR = 5
SHORTEST_LIMIT = 20  # seconds
SAVE_SECONDS = 10
SLOW = 4  # seconds; the cases of such an entry are looked at one by one
START_SECONDS = 1
LONGEST_COMMAND = 20000  # characters; Windows takes 32767


@dataclass
class Entry:
    """One test of CTest, or all those that only start one program with different cases."""

    name: str
    command: list
    environment: dict
    native: bool
    seconds: float = 0
    reached: frozenset = frozenset()
    # Of the slow ones, each case's own time and reach.
    cases: dict = field(default_factory=dict)

    def is_script(self):
        return self.command[0].endswith((".sh", ".py"))

    def only(self, cases):
        """The command for some of its cases."""
        words = [word for word in self.command if not word.startswith("--gtest_filter")]
        return words + ["--gtest_filter=" + ":".join(cases)]

    def against(self, number):
        """The command that meets a mutant, and the seconds that it usually takes."""
        cases = [name for name, case in self.cases.items() if number in case["reached"]]
        command = self.only(cases)
        if not cases or sum(map(len, command)) > LONGEST_COMMAND:
            return self.command, self.seconds
        return command, START_SECONDS + sum(self.cases[name]["seconds"] for name in cases)


def limit(seconds):
    return max(SHORTEST_LIMIT, LIMIT_FACTOR * seconds)


def read_entries(build, place, native):
    """The tests of CTest, and the commands that have to run before them."""
    listed = subprocess.run(["ctest", "-C", "full", "--show-only=json-v1"], cwd=build.folder,
                            env=place.environment, check=True, capture_output=True, text=True).stdout
    entries, fixtures = {}, []
    for test in json.loads(listed)["tests"]:
        properties = {p["name"]: p["value"] for p in test.get("properties", [])}
        environment = dict(pair.split("=", 1) for pair in properties.get("ENVIRONMENT", []))
        command = test.get("command")
        if command is None:
            raise RuntimeError(f"{test['name']} has no program: is everything built?")
        if any(name.startswith("token") for name in properties.get("FIXTURES_SETUP", [])):
            fixtures.append(command)
            continue
        # Each place has a screen and a server of its own. What looks at files sees no change.
        if {"FIXTURES_SETUP", "FIXTURES_CLEANUP"} & properties.keys() or \
                {"package", "page", "long", "fuzz"} & set(properties.get("LABELS", [])):
            continue
        name = ("native " if native else "") + test["name"]
        if any(re.fullmatch(r"--gtest_filter=[^*]*", word) for word in command):
            command = command[:next(i for i, word in enumerate(command)
                                    if word.startswith("--gtest"))]
            name = name.split(".")[0]
        entries.setdefault(name, Entry(name, command, environment, native))
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

    def __init__(self, folder, tree, say):
        self.path = folder / "reached.json"
        self.folder = folder / "record"
        self.module = tree.windows.folder / "checked" / "nvksprovider.dll"
        self.known = json.loads(self.path.read_text()) if self.path.exists() else {}
        self.say = say
        self.lock = threading.Lock()
        self.saved = 0

    def save(self):
        """A run that is stopped meanwhile finds the file of before."""
        fresh = self.path.with_suffix(".new")
        fresh.write_text(json.dumps(self.known))
        fresh.replace(self.path)
        self.saved = time.monotonic()

    def mark(self, entry):
        digest = hashlib.sha256(b"" if entry.native else self.module.read_bytes())
        for word in entry.command[:1] if entry.native else entry.command:
            if entry.native or word.endswith(".exe"):
                with open(word, "rb") as file:
                    digest.update(file.read())
        return digest.hexdigest()

    def record_all(self, places, entries):
        in_parallel(places, entries, self.record)
        slow = [entry for entry in entries
                if entry.seconds > SLOW and "cases" not in self.known[entry.name]]
        tasks = []
        for entry in slow:
            entry.cases = self.known[entry.name].setdefault("begun", {})
            found = [case for case in self.list_cases(places[0], entry)
                     if case not in entry.cases]
            self.say(f"{entry.name}: {len(found)} cases one by one")
            tasks += [(entry, case) for case in found]
        in_parallel(places, tasks, self.record_case)
        for entry in slow:
            self.known[entry.name]["cases"] = self.known[entry.name].pop("begun")
        self.save()
        for entry in entries:
            entry.cases = self.known[entry.name].get("cases", {})

    def record(self, place, entry):
        mark = self.mark(entry)
        known = self.known.get(entry.name)
        if known is None or known["mark"] != mark:
            run, numbers = self.run(place, entry, entry.command, entry.name)
            times = re.findall(r"^\[       OK \] ([\w./]+).*\((\d+) ms\)", run.output, re.M)
            known = {"mark": mark, "seconds": run.seconds, "reached": numbers,
                     "times": {case: int(time) / 1000 for case, time in times}}
            with self.lock:
                self.known[entry.name] = known
                self.save()
                self.say(f"{entry.name}: {run.seconds:.1f} s, reaches {len(numbers)} changes")
        entry.seconds = known["seconds"]
        entry.reached = frozenset(known["reached"])

    def record_case(self, place, task):
        entry, case = task
        run, numbers = self.run(place, entry, entry.only([case]), f"{entry.name}.{case}")
        seconds = self.known[entry.name]["times"].get(case, run.seconds)
        with self.lock:
            entry.cases[case] = {"seconds": seconds, "reached": numbers}
            if time.monotonic() - self.saved > SAVE_SECONDS:
                self.save()

    @staticmethod
    def list_cases(place, entry):
        run = place.run([*entry.command, "--gtest_list_tests"], 60, entry.environment)
        names, suite = [], ""
        for line in run.output.splitlines():
            name = line.partition("#")[0].rstrip()
            if name.startswith("  "):
                names.append(suite + name.strip())
            elif name.endswith("."):
                suite = name
        return names

    def run(self, place, entry, command, name):
        """A run without any change, and the numbers that it reached."""
        name = name.replace("/", "_").replace(" ", "-") + "-"
        where = str(self.folder / name)
        if not entry.native:
            where = "Z:" + where.replace("/", "\\")
        for _ in range(3):
            for old in self.folder.glob(name + ".*"):
                old.unlink()
            run = place.run(command, 600, entry.environment | {"NV_MUTANT_RECORD": where})
            if run.passed:
                break
            place.clear_store()
        else:
            raise RuntimeError(f"{name} fails without any change:\n{run.output[-3000:]}")
        numbers = set()
        for file in self.folder.glob(name + ".*"):
            numbers.update(map(int, file.read_text().split()))
        return run, sorted(numbers)


def case_of(run):
    """The case of GoogleTest in which a run ended badly; None if there was none."""
    failed = re.findall(r"^\[  FAILED  \] ([\w./]+)", run.output, re.M)
    begun = re.findall(r"^\[ RUN      \] ([\w./]+)", run.output, re.M)
    return failed[0] if failed else begun[-1] if begun else None


class Judge:
    def __init__(self, entries):
        self.entries = entries

    def judge(self, place, number):
        """What becomes of a mutant, as a row of the results."""
        reaching = [entry for entry in self.entries if number in entry.reached]
        # A script takes minutes and has one folder for all places. It is asked only if nobody else can be.
        able = [entry for entry in reaching if not entry.is_script()] or reaching
        if not able:
            return {"number": number, "outcome": "unreached"}
        able.sort(key=lambda entry: entry.against(number)[1])
        ran, doubts = [], []
        for entry in able:
            command, seconds = entry.against(number)
            run = place.run(command, limit(seconds),
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
        outcome = "unclear" if doubts else "survived"
        return {"number": number, "outcome": outcome, "ran": ran, "doubts": doubts}

    @staticmethod
    def confirmed(place, entry, number, case):
        """A failure counts if it comes again, and only with the mutant: the machine is shared, and
        the mutant may have left something in the prefix."""
        command, seconds = entry.against(number)
        alone = entry.only([case]) if case is not None else command
        mutated = entry.environment | {"NV_MUTANT": str(number)}
        again = place.run(alone, limit(0), mutated)
        if again.passed and case is not None:
            alone = command  # it needs those before it
            again = place.run(alone, limit(seconds), mutated)
        if again.passed:
            return False
        place.clear_store()
        return place.run(alone, limit(seconds), entry.environment).passed


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
    places = [Place(root, folder, tree.windows.folder, n) for n in range(options.workers)]
    (folder / "record").mkdir(exist_ok=True)
    try:
        for place in places:
            say(f"Wine prefix {place.prefix}")
            place.start()
        entries, fixtures = read_entries(tree.windows, places[0], native=False)
        entries += read_entries(tree.native, places[0], native=True)[0]
        for command in fixtures:
            places[0].call(*command)
        say(f"{len(entries)} entries without any change")
        recorder = Recorder(folder, tree, say)
        recorder.record_all(places, entries)
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
