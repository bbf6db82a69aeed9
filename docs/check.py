#!/usr/bin/env python3
"""Looks at the documentation: at what Doxygen has made, and at the samples of code in the headers.

    check.py names XML      counts the public names, and lists those without a description
    check.py links HTML     follows each link and each picture of the pages; lists those that lead nowhere
    check.py samples ROOT   looks for the public headers' samples in what is compiled; lists those that are not there
"""
import html.parser
import pathlib
import re
import sys
import urllib.parse
import xml.etree.ElementTree


def described(element):
    return any("".join(element.find(tag).itertext()).strip()
               for tag in ("briefdescription", "detaileddescription") if element.find(tag) is not None)


def check_names(folder):
    """An enumeration's description counts for its values."""
    names, without = {}, []
    for file in sorted(folder.glob("*.xml")):
        for compound in xml.etree.ElementTree.parse(file).iterfind("compounddef"):
            if compound.get("prot") == "private" or compound.findtext("compoundname") == "std":
                continue
            elements = [compound] if compound.get("kind") in ("class", "struct", "union", "namespace") else []
            elements += compound.iterfind("sectiondef/memberdef")
            for element in elements:
                if element.get("prot") == "private" or element.get("id") in names:
                    continue
                name = element.findtext("compoundname") or element.findtext("qualifiedname") or element.findtext("name")
                names[element.get("id")] = name
                if not described(element):
                    without.append(name)
    for name in without:
        print(f"not described: {name}")
    print(f"{len(names)} public names, {len(names) - len(without)} described")
    return not without


class Page(html.parser.HTMLParser):
    def __init__(self, text):
        super().__init__()
        self.links, self.anchors = set(), set()
        self.feed(text)

    def handle_starttag(self, tag, attributes):
        for name, value in attributes:
            if name == "id" or (name == "name" and tag == "a"):
                self.anchors.add(value)
            elif name in ("href", "src", "data") and value:
                self.links.add(value)


def check_links(folder):
    pages = {file.name: Page(file.read_text(encoding="utf-8")) for file in folder.glob("*.html")}
    count, broken = 0, []
    for name, page in sorted(pages.items()):
        for link in sorted(page.links):
            parts = urllib.parse.urlsplit(link)
            if parts.scheme in ("http", "https", "mailto", "javascript", "data"):
                continue
            count += 1
            target = urllib.parse.unquote(parts.path) or name
            anchor = urllib.parse.unquote(parts.fragment)
            if not (folder / target).is_file() or (target in pages and anchor and anchor not in pages[target].anchors):
                broken.append(f"{name}: {link}")
    for link in broken:
        print(f"leads nowhere: {link}")
    print(f"{len(pages)} pages, {count} links, {count - len(broken)} of them good")
    return not broken


# A block of a comment that stands further in than the text around it, with the blank lines inside it.
BLOCK = re.compile(r"^[ \t]*///     .*(\n[ \t]*///(     .*|[ \t]*$))*", re.MULTILINE)
# What makes it code: a line that ends like one of C++. Tables and forms of text have none.
CODE = re.compile(r"[;{}][ \t]*(//.*)?$", re.MULTILINE)


def words(text):
    """The words and signs with one blank around each: where lines begin and end is the formatter's affair."""
    return " " + " ".join(re.findall(r"\w+|[^\w\s]", text)) + " "


def public_headers(root):
    installed = (root / "cmake/VeloxInstall.cmake").read_text(encoding="utf-8")
    private = re.search(r"set\(VELOX_PRIVATE_HEADERS([^)]*)", installed)[1].split()
    return sorted(set(root.glob("velox/**/*.hpp")) - {root / "velox" / name for name in private})


def check_samples(root):
    """A sample counts as compiled when it stands in a source, to the letter and with nothing in between."""
    compiled = [words(source.read_text(encoding="utf-8"))
                for folder in ("docs/samples", "examples", "tests") for source in root.glob(f"{folder}/**/*.cpp")]
    count, lost, others = 0, [], 0
    for header in public_headers(root):
        text = header.read_text(encoding="utf-8")
        for block in BLOCK.finditer(text):
            if not CODE.search(block[0]):
                others += 1
                continue
            count += 1
            sample = words(re.sub(r"^[ \t]*///", "", block[0], flags=re.MULTILINE))
            if not any(sample in source for source in compiled):
                line = text.count("\n", 0, block.start()) + 1
                lost.append(f"{header.relative_to(root)}:{line}")
    for place in lost:
        print(f"{place}: this sample is compiled nowhere")
    print(f"{count} samples in headers, {count - len(lost)} compiled; {others} indented blocks are no code")
    return not lost


if __name__ == "__main__":
    what, where = sys.argv[1], pathlib.Path(sys.argv[2])
    sys.exit(0 if {"names": check_names, "links": check_links, "samples": check_samples}[what](where) else 1)
