"""velserve, asked by curl, by ab, and by clients that behave badly."""

import concurrent.futures
import http.client
import pathlib
import random
import shutil
import socket
import subprocess
import tempfile
import time

from common import Program, cannot_run, check, finish, windows_path

FILES = 200
LARGEST = 10 << 20


def make_files(folder):
    """From 1 byte to 10 MiB, most of them small; half of them in folders."""
    random.seed(7)
    names = []
    for i in range(FILES):
        size = [1, LARGEST][i] if i < 2 else int(2 ** random.uniform(0, 17))
        name = f"d{i % 7}/file {i}.bin" if i % 2 else f"file{i}.html"
        path = folder / name
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(random.randbytes(size))
        names.append(name)
    return names


def url(port, name):
    return f"http://127.0.0.1:{port}/" + name.replace(" ", "%20")


def curl(*arguments):
    return subprocess.run(["curl", "-s", "--path-as-is", "--max-time", "60", *arguments], capture_output=True)


def connect(port):
    return socket.create_connection(("127.0.0.1", port), timeout=30)


def receive_all(client):
    received = b""
    try:
        while piece := client.recv(65536):
            received += piece
    except ConnectionResetError:
        received += b"<reset>"
    return received


def serves_curl(port, folder, names):
    def same(name):
        return curl(url(port, name)).stdout == (folder / name).read_bytes()

    with concurrent.futures.ThreadPoolExecutor(20) as pool:
        wrong = [name for name, good in zip(names, pool.map(same, names)) if not good]
    check(f"curl gets {len(names)} files, 20 at a time", not wrong, wrong)
    # Twenty on one connection; --parallel would open several.
    answers = curl(*[url(port, name) for name in names[2:22]]).stdout
    check("curl gets 20 files on one connection", answers == b"".join((folder / n).read_bytes() for n in names[2:22]))
    head = curl("-I", url(port, names[1])).stdout.decode()
    check("HEAD tells the size and no more", f"Content-Length: {LARGEST}\r\n" in head and head.endswith("\r\n\r\n"), head)
    ranged = curl("-i", "-r", "0-3", url(port, names[0])).stdout
    check("a range is answered with the whole file", ranged.startswith(b"HTTP/1.1 200 ") and b"Accept-Ranges: none" in ranged)
    for target, status in {"../velserve.exe": 404, "%2e%2e/x": 404, "..%5cx": 404, "c:/windows/win.ini": 404, "nul": 404,
                           "com1.txt": 404, "a%00b": 400, "%4": 400, "none": 404, "d1": 301, "file0.html.": 404,
                           "file0.html::$DATA": 404}.items():
        got = curl("-o", "-", "-w", "%{http_code}", f"http://127.0.0.1:{port}/{target}").stdout[-3:]
        check(f"/{target} gives {status}", got == str(status).encode(), got)
    got = curl("-X", "DELETE", "-D", "-", url(port, names[0])).stdout
    check("other methods give 405 with Allow", b" 405 " in got and b"Allow: GET, HEAD" in got, got)


def takes_fragments(port, folder, names):
    request = f"GET /{names[2]} HTTP/1.1\r\nHost: x\r\n\r\n".encode()
    last = request.replace(b"Host", b"Connection: close\r\nHost")
    want = (folder / names[2]).read_bytes()
    with connect(port) as client:
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for byte in request + request + last:
            client.sendall(bytes([byte]))
            time.sleep(0.001)  # lets the server read it before the next
        answers = receive_all(client)
    check("requests byte by byte", answers.count(want) == 3 and answers.endswith(want), len(answers))
    with connect(port) as client:
        client.sendall(request * 50 + last)
        client.shutdown(socket.SHUT_WR)
        answers = receive_all(client)
    check("51 requests at once, half closed after", answers.count(b"HTTP/1.1 200 OK") == 51 and answers.endswith(want),
          answers.count(b"HTTP/1.1 200 OK"))


def bears_bad_clients(port, folder, names):
    random.seed(3)
    for what, sent, status in (
            ("garbage", random.randbytes(100_000).replace(b"\n", b"x"), b" 431 "),
            ("no HTTP at all", b"\x16\x03\x01\r\n\r\n", b" 400 "),
            ("a huge header", b"GET / HTTP/1.1\r\nHost: x\r\nA: " + b"a" * 1_000_000 + b"\r\n\r\n", b" 431 "),
            ("no host", b"GET / HTTP/1.1\r\n\r\n", b" 400 "),
            ("a folded line", b"GET / HTTP/1.1\r\nHost: x\r\n folded\r\n\r\n", b" 400 "),
            ("an old version", b"GET / HTTP/2.0\r\nHost: x\r\n\r\n", b" 505 "),
            ("a body", b"GET / HTTP/1.1\r\nHost: x\r\nContent-Length: 3\r\n\r\nabc", b" 400 ")):
        with connect(port) as client:
            client.sendall(sent)
            answer = receive_all(client)
        line = answer.split(b"\r\n")[0]
        check(f"{what} is answered, then closed", status in line + b" " and b"<reset>" not in answer, line)
    for _ in range(50):  # gone in the middle of a large answer
        with connect(port) as client:
            client.sendall(b"GET /" + names[1].replace(" ", "%20").encode() + b" HTTP/1.1\r\nHost: x\r\n\r\n")
            client.recv(1000)
    check("serving goes on", curl(url(port, names[0])).stdout == (folder / names[0]).read_bytes())


def closes_silent_clients(port, folder, names, idle):
    clients = [connect(port) for _ in range(100)]
    start = time.monotonic()
    with connect(port) as busy:
        served = http.client.HTTPConnection("127.0.0.1", port)
        served.sock = busy
        closed = 0
        while closed < len(clients) and time.monotonic() - start < 60:
            served.request("GET", "/" + names[0])
            if served.getresponse().read() != (folder / names[0]).read_bytes():
                break
            closed = sum(is_closed(client) for client in clients)
    check("100 silent connections are closed, and one that asks is served", closed == len(clients), closed)
    check("not before they were idle for long enough", time.monotonic() - start >= idle)
    for client in clients:
        client.close()


def is_closed(client):
    client.setblocking(False)
    try:
        return client.recv(1) == b""
    except BlockingIOError:
        return False
    except ConnectionError:
        return True


def bears_load(port, names):
    if not shutil.which("ab"):
        return cannot_run("100 connections for 10 seconds", "there is no ab")
    result = subprocess.run(["ab", "-q", "-k", "-c", "100", "-t", "10", "-n", "1000000", "-s", "30", url(port, names[0])],
                            capture_output=True, text=True)
    facts = {line.split(":")[0]: line.split(":")[1].split()[0] for line in result.stdout.splitlines() if ":" in line and line.split(":")[1].split()}
    good = facts.get("Failed requests") == "0" and int(facts.get("Complete requests", 0)) > 1000 and "Non-2xx responses" not in facts
    check(f"ab with 100 connections for 10 seconds: {facts.get('Complete requests')} requests", good, result.stdout + result.stderr)


def main():
    idle = 2
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        names = make_files(folder)
        with Program("velserve", 0, windows_path(folder), "--idle", idle) as server:
            port = int(server.await_line("serving ").rsplit(":", 1)[1].rstrip("/"))
            serves_curl(port, folder, names)
            takes_fragments(port, folder, names)
            bears_bad_clients(port, folder, names)
            closes_silent_clients(port, folder, names, idle)
            bears_load(port, names)
            check("the server still runs", server.process.poll() is None)
    for arguments, message in (((99999, "."), "must be a number from 0 to 65535"), ((0, "no-such-folder"), "there is no folder")):
        with Program("velserve", *arguments) as program:
            program.await_line("velserve: ")
            check(f"velserve {arguments}: {message}", message in program.said and program.wait() == 1, program.said)
    finish()


if __name__ == "__main__":
    main()
