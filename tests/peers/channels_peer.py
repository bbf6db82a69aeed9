"""The channels of datagrams and connections, with sockets of Python and with netcat at their other ends."""

import pathlib
import random
import shutil
import socket
import subprocess
import tempfile
import time

from common import Program, cannot_run, check, finish


def udp():
    with Program("velox_tests", "--role=udp-echo") as program, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        port = int(program.await_line("port ").split()[1])
        client.settimeout(30)
        good = 0
        for i in range(100):
            sent = random.randbytes(512)
            client.sendto(sent, ("127.0.0.1", port))
            good += client.recv(2000) == sent
        check("100 datagrams come back", good == 100, good)
        # A longer one is read by two operations, each of which sends its half back.
        sent = random.randbytes(1024)
        client.sendto(sent, ("127.0.0.1", port))
        check("a datagram of 1024 bytes comes back in halves", client.recv(2000) + client.recv(2000) == sent)
        client.sendto(b"end".ljust(512), ("127.0.0.1", port))
        check("the channel ends in order", program.wait() == 0)


def tcp():
    with socket.create_server(("127.0.0.1", 0)) as server:
        server.settimeout(30)
        with Program("velox_tests", "--role=tcp-echo", server.getsockname()[1]) as program:
            connection, _ = server.accept()
            connection.settimeout(30)
            sent = random.randbytes(100_500)
            received = b""
            for start in range(0, len(sent), 7_000):
                connection.sendall(sent[start:start + 7_000])
                whole = min(start + 7_000, len(sent)) // 1000 * 1000
                while len(received) < whole:
                    received += connection.recv(65536)
            check("100,000 bytes come back over a connection", received == sent[:100_000], len(received))
            connection.shutdown(socket.SHUT_WR)
            rest = connection.recv(2000)
            program.await_line("ended after 500 bytes more, error 0")
            check("half a message, then the peer's end", rest == sent[100_000:] and program.wait() == 0, len(rest))
            connection.close()


def await_listener(port):
    """Returns when a program of this system listens on the port."""
    wanted = f":{port:04X} 00000000:0000 0A "
    while wanted not in pathlib.Path("/proc/net/tcp").read_text():
        time.sleep(0.01)


def netcat():
    if not shutil.which("nc"):
        return cannot_run("netcat", "there is no nc")
    with socket.create_server(("127.0.0.1", 0)) as probe:
        port = probe.getsockname()[1]
    sent = random.randbytes(30_000)
    with tempfile.TemporaryFile() as file:
        file.write(sent)
        file.seek(0)
        nc = subprocess.Popen(["nc", "-N", "-l", "127.0.0.1", str(port)], stdin=file, stdout=subprocess.PIPE)
        try:
            await_listener(port)
            with Program("velox_tests", "--role=tcp-echo", port) as program:
                received = nc.communicate(timeout=60)[0]
                check("netcat gets 30,000 bytes back", received == sent and program.wait() == 0, len(received))
        finally:
            nc.kill()


random.seed(1)
udp()
tcp()
netcat()
finish()
