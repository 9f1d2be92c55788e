#!/usr/bin/python3
"""Checks a file against the description of the Trace Event Format (JSON object form), as far as this
project writes it, and against what viewers need: slices of one thread must be inside each other or apart.

  trace_format.py FILE...

Prints one line for each violation, at most 20 for a file. The status is 1 if there is one.
"""

import json
import sys

# Colour names that the format reserves.
COLOURS = {"good", "bad", "terrible", "black", "grey", "white", "yellow", "olive"}
METADATA = {"process_name", "process_labels", "process_sort_index", "thread_name", "thread_sort_index"}
TOP = {"traceEvents", "displayTimeUnit", "systemTraceEvents", "otherData", "stackFrames", "samples"}


def is_number(value):
    return isinstance(value, (int, float)) and not isinstance(value, bool)


def problems_of_event(event):
    for field in ("name", "ph", "pid", "tid"):
        if field not in event:
            yield f"no {field}"
    if not isinstance(event.get("name"), str) or not event["name"]:
        yield "name is no text"
    for field in ("pid", "tid"):
        if not isinstance(event.get(field), int):
            yield f"{field} is no integer"
    if not isinstance(event.get("args", {}), dict):
        yield "args is no object"
    if "cname" in event and event["cname"] not in COLOURS:
        yield f"unknown colour {event['cname']}"
    if event.get("ph") == "X":
        if not isinstance(event.get("cat"), str):
            yield "no category"
        for field in ("ts", "dur"):
            if not is_number(event.get(field)) or event[field] < 0:
                yield f"{field} is no time"
    elif event.get("ph") == "M":
        if event.get("name") not in METADATA:
            yield f"unknown metadata {event.get('name')}"
        elif not isinstance(event.get("args", {}).get("name"), str):
            yield "metadata without a name"
    else:
        yield f"phase {event.get('ph')} is not written here"


def problems_of_threads(events):
    threads = {}
    for event in events:
        if event.get("ph") == "X":
            threads.setdefault((event["pid"], event["tid"]), []).append(event)
    for identity, slices in threads.items():
        open_ends = []
        for event in sorted(slices, key=lambda e: (e["ts"], -e["dur"])):
            end = event["ts"] + event["dur"]
            while open_ends and open_ends[-1] <= event["ts"]:
                open_ends.pop()
            if open_ends and end > open_ends[-1]:
                yield f"{event['name']} at {event['ts']} overlaps in {identity}"
            open_ends.append(end)


def problems_of(document):
    if not isinstance(document, dict) or not isinstance(document.get("traceEvents"), list):
        yield "no list of events"
        return
    for field in document.keys() - TOP:
        yield f"unknown field {field}"
    if document.get("displayTimeUnit", "ms") not in ("ms", "ns"):
        yield "displayTimeUnit is neither ms nor ns"
    sound = True
    for i, event in enumerate(document["traceEvents"]):
        for problem in problems_of_event(event):
            sound = False
            yield f"event {i}: {problem}"
    if sound:
        yield from problems_of_threads(document["traceEvents"])
    if not any(event.get("ph") == "X" for event in document["traceEvents"]):
        yield "no slice"


def main():
    failed = False
    for name in sys.argv[1:]:
        with open(name, encoding="utf-8") as file:
            found = list(problems_of(json.load(file)))
        failed = failed or bool(found)
        for problem in found[:20]:
            print(f"{name}: {problem}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
