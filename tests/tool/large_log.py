#!/usr/bin/python3
"""Writes a large log: a small one again and again, each time later and as another process.

  large_log.py SAMPLE MEGABYTES >LOG
"""

import datetime
import re
import sys

RECORD = re.compile(r"^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3})( \w{3} \[)\d+(,\w{8}\] .*)$", re.S)
FORM = "%Y-%m-%d %H:%M:%S.%f"
PAUSE = datetime.timedelta(seconds=7)  # longer than the sample


def main():
    sample, megabytes = sys.argv[1], int(sys.argv[2])
    with open(sample, encoding="utf-8") as file:
        parts = [RECORD.match(line) for line in file]
    records = [(datetime.datetime.strptime(part[1], FORM), part[2], part[3]) for part in parts if part]
    written, round_ = 0, 0
    while written < megabytes << 20:
        later = PAUSE * round_
        process = 1000 + round_ % 60000
        text = "".join(
            f"{(time + later).isoformat(' ', 'milliseconds')}{level}{process:05d}{rest}"
            for time, level, rest in records)
        sys.stdout.write(text)
        written += len(text)
        round_ += 1


if __name__ == "__main__":
    main()
