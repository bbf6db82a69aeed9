"""Installer databases: what msibuild made is read by velmsi, and what velmsi made by msiinfo."""

import pathlib
import random
import shutil
import subprocess
import tempfile

from common import Program, cannot_run, check, finish, windows_path


def ours(database, *arguments):
    """The lines that velmsi prints; raises when it fails."""
    with Program("velmsi", windows_path(database), *arguments) as program:
        lines = []
        while (line := program.lines.get(timeout=60)) is not None:
            lines.append(line)
        if program.wait() != 0:
            raise RuntimeError(f"velmsi {arguments}: {lines}")
        return lines


def theirs(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=60).stdout


def read_theirs(folder):
    database, stream, table = folder / "theirs.msi", folder / "stream", folder / "Imported.idt"
    stream.write_bytes(bytes(range(256)) * 40)
    rows = [(key, text) for key, text in enumerate(TEXTS, 1)]
    table.write_bytes("".join(f"{a}\t{b}\r\n" for a, b in [
        ("Key", "Text"), ("i2", "L0"), ("Imported", "Key"), *rows]).encode())
    theirs("msibuild", database, "-s", "Velox", "Velox", ";1033", "{6E7A1E3C-5E0B-4A43-9F0E-6C8A0D5B7F21}")
    theirs("msibuild", database, "-q", "CREATE TABLE `Made` (`Name` CHAR(72) NOT NULL, `Number` INT PRIMARY KEY `Name`)")
    theirs("msibuild", database, "-q", "INSERT INTO `Made` (`Name`, `Number`) VALUES ('one', 1)")
    theirs("msibuild", database, "-q", "INSERT INTO `Made` (`Name`, `Number`) VALUES ('two', -2)")
    theirs("msibuild", database, "-i", table)
    theirs("msibuild", database, "-a", "Binary.data", stream)
    check("the tables that msibuild made", sorted(ours(database, "tables")) == ["Imported", "Made"])
    lines = ours(database, "export", "Made")
    check("their columns and rows", lines == ["Name\tNumber", "one\t1", "two\t-2"], lines)
    lines = ours(database, "query", "SELECT `Key`, `Text` FROM `Imported`")
    check("texts that msibuild imported", lines == [f"{a}\t{escaped(b)}" for a, b in rows], lines)
    lines = ours(database, "query", "SELECT `Number` FROM `Made` WHERE `Name` = ?", "two")
    check("a query with a condition", lines == ["-2"], lines)
    lines = ours(database, "query", "SELECT `Name`, `Data` FROM `_Streams` WHERE `Name` = 'Binary.data'")
    check("the size of a stream", lines == ["Binary.data\t[10240 bytes]"], lines)


def write_ours(folder):
    database = folder / "ours.msi"
    ours(database, "create")
    ours(database, "run", "CREATE TABLE `Made` (`Key` SHORT NOT NULL, `Text` LONGCHAR, `Long` LONG PRIMARY KEY `Key`)")
    for key, text in enumerate(TEXTS, 1):
        ours(database, "run", f"INSERT INTO `Made` (`Key`, `Text`, `Long`) VALUES ({key}, ?, {-key * 70000})", text)
    tables = theirs("msiinfo", "tables", database).split()
    check("msiinfo finds our table", "Made" in tables, tables)
    exported = theirs("msiinfo", "export", database, "Made").replace("\r\n", "\n")
    expected = "Key\tText\tLong\ni2\tS0\tI4\nMade\tKey\n" + "".join(f"{key}\t{text}\t{-key * 70000}\n" for key, text in enumerate(TEXTS, 1))
    check("and our rows", exported == expected, exported)
    ours(database, "run", "DELETE FROM `Made` WHERE `Key` = 2")
    keys = [line.split("\t")[0] for line in theirs("msiinfo", "export", database, "Made").splitlines()[3:]]
    check("and sees what was deleted", keys == [str(k) for k in range(1, len(TEXTS) + 1) if k != 2], keys)


def escaped(text):
    return text.replace("\\", "\\\\")


def random_text(source):
    return "".join(source.choice("abc'\"`\\[]{}?%$,; ") for _ in range(source.randrange(1, 60))).strip() + "."


TEXTS = ["", "it's", '"quoted"', "`too`", "x" * 3000] + [random_text(random.Random(i)) for i in range(6)]


def main():
    if not shutil.which("msibuild") or not shutil.which("msiinfo"):
        cannot_run("Installer databases", "there is no msibuild or msiinfo")
        return
    with tempfile.TemporaryDirectory() as name:
        read_theirs(pathlib.Path(name))
        write_ours(pathlib.Path(name))


main()
finish()
