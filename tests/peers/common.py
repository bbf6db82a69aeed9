"""What the scripts share that drive the programs from outside: from this system, with tools of others.

Each script is called with the loader that runs programs of Windows and the folder they are in. It prints a line for
each thing it tried and exits with 1 when one went wrong.
"""

import contextlib
import queue
import subprocess
import sys
import threading

LOADER, FOLDER = sys.argv[1:3]
failures = []


def check(what, good, detail=""):
    print(f"{'ok' if good else 'FAILED'}: {what}" + ("" if good else f": {detail}"), flush=True)
    if not good:
        failures.append(what)


def cannot_run(what, why):
    print(f"not run: {what}: {why}", flush=True)


def finish():
    sys.exit(1 if failures else 0)


def windows_path(path):
    return "Z:" + str(path).replace("/", "\\")


class Program:
    """A started program; its output comes line by line."""

    def __init__(self, name, *arguments):
        command = [LOADER, f"{FOLDER}/{name}.exe", *map(str, arguments)]
        self.process = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.lines = queue.Queue()
        self.said = ""
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\r\n"))
        self.lines.put(None)

    def await_line(self, text, seconds=60):
        """The next line that contains the text; raises when none comes."""
        with contextlib.suppress(queue.Empty):
            while (line := self.lines.get(timeout=seconds)) is not None:
                self.said += line + "\n"
                if text in line:
                    return line
        raise RuntimeError(f"no line with '{text}' came, but: {self.said}")

    def wait(self, seconds=60):
        return self.process.wait(seconds)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
