"""Counts requests to Wine's server, of which each costs as much as a hundred thousand instructions.

    requests.py TRACE

TRACE is what Wine's server wrote with WINEDEBUG=+server while `velox_bench --trace` ran: that repeats each operation
between two marks (attempts to open events with telling names). All requests of the marking process and of the processes
that it started are counted, and divided by the number of repetitions.
"""

import collections
import re
import sys

CALL = re.compile(r"^([0-9a-f]{4}): (\w+)\( (.*)")
REPLY = re.compile(r"^([0-9a-f]{4}): (\w+)\(\) = 0 \{ (.*) \}")
BEGIN = re.compile(r'name=L"velox-bench begin\|(.*)\|(\w+)\|(\d+)"')

# What the operation can't do without, for one unit of it: beginning of its name, number, reason.
FEWEST = [
    ("call to another thread", 4, "queue the APC, wait for the answer; there: answer, wait again"),
    ("call queue: 1 calls", 4, "queue the APC, wait for the answer; there: answer, wait again"),
    ("call queue", 2, "queue the APC; there: wait again"),
    ("reactor", 4, "signal, wait for the answer; there: answer, wait again"),
    ("scheduler: arm", 4, "queue the APC; there: set the timer, wait again; then cancel it, or wait for it"),
    ("trace record", 3, "open, look up the descriptor, close"),
    ("TCP channel: send and receive 1 ", 14, "as the bare calls, which have no time limits"),
    ("UDP channel: send and receive 1 ", 14, "as the bare calls, which have no time limits"),
    ("shared-memory channel", 12, "each way: take the mutex, release it, signal; wait, take the mutex, release it"),
]


class Count:
    def __init__(self, row, side, runs):
        self.row, self.side, self.runs = row, side, runs
        self.requests = collections.Counter()

    def units(self):
        """Some operations do a number of things at once and say so: "arm 100 tasks"."""
        if self.row.startswith("shared-memory channel"):
            return self.runs * 64
        number = re.match(r"(?:call queue: |scheduler: arm )(\d+)", self.row)
        return self.runs * (int(number.group(1)) if number else 1)


def family(process, parents):
    while process is not None:
        yield process
        process = parents.get(process)


def read(lines):
    process_of, parents = {}, {}  # by thread, by process
    counts, current, marker = [], None, None
    for line in lines:
        reply = REPLY.match(line)
        if reply:
            thread, name, result = reply.groups()
            fields = dict(re.findall(r"(\w+)=([0-9a-f]+)", result))
            if name == "init_first_thread":
                process_of[thread] = fields["pid"]
            elif name == "new_thread" and "tid" in fields:
                process_of[fields["tid"]] = process_of.get(thread)
            elif name == "new_process":
                parents[fields["pid"]] = process_of.get(thread)
            continue
        call = CALL.match(line)
        if not call:
            continue
        thread, name, arguments = call.groups()
        begin = BEGIN.search(arguments)
        if begin:
            current, marker = Count(begin.group(1), begin.group(2), int(begin.group(3))), process_of.get(thread)
            continue
        if "velox-bench end" in arguments:
            if current is not None:
                counts.append(current)
            current = None
            continue
        if current is not None and marker in family(process_of.get(thread), parents):
            current.requests[name] += 1
    return counts


def show(count):
    units = count.units()
    most = ", ".join(f"{n / units:.1f} {name}" for name, n in count.requests.most_common(6) if n / units >= 0.05)
    return f"{sum(count.requests.values()) / units:.1f}", most


def main():
    with open(sys.argv[1], encoding="utf-8", errors="replace") as file:
        counts = read(file)
    if not counts:
        sys.exit(f"no marks in {sys.argv[1]}")
    print("| operation, for one of what it does | side | requests | fewest | which |")
    print("|:---|:---|---:|---:|:---|")
    for count in counts:
        total, most = show(count)
        fewest = next((str(number) for start, number, _ in FEWEST if count.row.startswith(start)), "-")
        print(f"| {count.row} | {count.side} | {total} | {fewest} | {most} |")
    print()
    for start, number, reason in FEWEST:
        print(f'fewest for "{start}": {number} ({reason})')


main()
