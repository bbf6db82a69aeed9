"""Serial ports: two pseudo-terminals that socat connects are COM12 and COM13 of the prefix."""

import contextlib
import os
import pathlib
import random
import shutil
import subprocess
import tempfile
import time

from common import Program, cannot_run, check, finish, windows_path

PORTS = (12, 13)


@contextlib.contextmanager
def connected_ports(folder):
    """Yields socat when the ports are there; it ends at the end."""
    ends = [folder / f"end{port}" for port in PORTS]
    socat = subprocess.Popen(["socat", *[f"pty,raw,echo=0,link={end}" for end in ends]])
    links = [pathlib.Path(os.environ["WINEPREFIX"]) / "dosdevices" / f"com{port}" for port in PORTS]
    try:
        while not all(end.exists() for end in ends):
            time.sleep(0.05)
            if socat.poll() is not None:
                raise RuntimeError(f"socat ended with {socat.returncode}")
        for link, end in zip(links, ends):
            link.unlink(missing_ok=True)
            link.symlink_to(end)
        yield socat
    finally:
        socat.kill()
        socat.wait()
        for link in links:
            link.unlink(missing_ok=True)


def channels():
    os.environ["VELOX_TEST_PORTS"] = ",".join(map(str, PORTS))
    with Program("velox_tests", "--gtest_filter=*CommunicationPorts*", "--gtest_brief=1") as program:
        line = program.await_line(" passed, ", 600)
        check("the channel over a pair of ports: " + line, program.wait() == 0 and " 0 failed" in line, program.said)


def velcopy(folder):
    sent = folder / "sent"
    received = folder / "received"
    sent.write_bytes(random.Random(2).randbytes(1 << 20))
    rate = ",115200"
    with Program("velcopy", "receive", f"com:{PORTS[0]}{rate}", windows_path(received)) as receiver:
        receiver.await_line("waiting for a sender")
        with Program("velcopy", "send", f"com:{PORTS[1]}{rate}", windows_path(sent)) as sender:
            sender.await_line("sent 1048576 bytes", 300)
            check("velcopy sends 1 MiB over a serial line", sender.wait() == 0 and receiver.wait() == 0)
    check("which arrives as it was", received.read_bytes() == sent.read_bytes())
    for address, message in (("com:77", "cannot open com:77: "), ("com:0", "must be a number from 1 to 65535"),
                             ("com:12,1234", "no rate"), ("com:x", "must be a number from 1 to 65535")):
        with Program("velcopy", "send", address, windows_path(sent)) as program:
            line = program.await_line("velcopy: ")
            check(f"velcopy send {address}: {message}", message in line and program.wait() == 1, line)


def broken_line(folder, socat):
    """Ends the line, and with it the ports, in the middle of a copy."""
    sent = folder / "huge"
    with sent.open("wb") as file:
        file.truncate(1 << 30)
    with Program("velcopy", "receive", f"com:{PORTS[0]}", windows_path(folder / "broken")) as receiver:
        receiver.await_line("waiting for a sender")
        with Program("velcopy", "send", f"com:{PORTS[1]}", windows_path(sent)) as sender:
            receiver.await_line(" s left")
            sender.await_line(" s left")
            socat.kill()
            for program, peer in ((sender, "receiver"), (receiver, "sender")):
                line = program.await_line("velcopy: ")
                check(f"velcopy notices that the line to the {peer} is broken",
                      f"the channel to the {peer} has failed" in line and program.wait() == 1, line)


def main():
    if not shutil.which("socat"):
        cannot_run("serial ports", "there is no socat")
        return
    try:
        for terminal in os.openpty():
            os.close(terminal)
    except OSError as error:
        cannot_run("serial ports", f"there are no pseudo-terminals: {error}")
        return
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        with connected_ports(folder) as socat:
            channels()
            velcopy(folder)
            broken_line(folder, socat)


main()
finish()
