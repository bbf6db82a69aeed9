#!/usr/bin/env python3
"""Shows a header of the library to Doxygen, as Doxygen wants to see it.

The headers are written for people. What people take for granted is added here, line by line, so that Doxygen's messages
still name the header's own lines:
- The comment before the namespace describes the module. Each header is a module, and belongs to its folder's group.
- A comment counts for all declarations below it, up to a blank line or another comment; a plain one that stands right
  above a declaration is one too.
- An override without a comment of its own has its base's, which Doxygen knows; a destructor without one frees what the
  class's comment says that it owns; what is deleted is not there.
- A comment behind a declaration is about that.
- Private parts are left out, and members' definitions behind their class.
- A line like `// ----- paths` between functions heads a section, with the comment that follows it.
"""
import pathlib
import re
import sys

CONTAINER = re.compile(r"\s*(class|struct|union|enum|namespace)\b")
SECTION = re.compile(r"// -{5,} (.*)")
DESTRUCTOR = re.compile(r"\s*(virtual )?~\w+\(\)")
NO_NAME = re.compile(r"\s*(friend\b|public:|protected:|private:|using [\w:<>]+::\w+;|#|extern template)")


def plain(text):
    """The text of a comment, in which no character is a command; code, which is indented, has none anyway."""
    if text.startswith("    "):
        return text
    return re.sub(r"[\\%@<>#]", lambda m: "\\" + m[0], text)


def text_of(line):
    return plain(re.sub(r"^\s*///? ?", "", line))


def in_one_line(comment):
    """A comment of several lines in one, to repeat it where there is no room for more."""
    return "/** " + " @nl ".join(comment).replace("*/", "* /") + " */"


def code_of(line):
    """The line without its comment and the contents of its literals."""
    line = re.sub(r'"(\\.|[^"\\])*"|\'(\\.|[^\'\\])\'', '""', line)
    return re.sub(r"//.*", "", line).rstrip()


class Filter:
    def __init__(self, path):
        self.module = path.stem
        self.folder = path.parent.name
        self.lines = path.read_text(encoding="utf-8").split("\n")
        self.out = list(self.lines)
        self.in_section = False
        self.private = []  # where the open private parts begin, and how many containers were open there

    def run(self):
        self.mark_module()
        self.walk()
        return "\n".join(self.out)

    def mark_module(self):
        """Makes the intro the module's description, and what is in the namespaces the module's contents."""
        self.out[0] = f"/** @file @nl The header of @ref {self.module}. */"
        module = f"@module{{{self.module},{self.folder}}}"
        begin, end = self.intro()
        if begin == end:
            self.out[0] += f" /** {module} */"
        else:
            text = [text_of(line) for line in self.lines[begin:end]]
            self.out[begin - 1] = f"/// {module}"
            self.out[begin:end] = ["/// " + line for line in text]
            self.lines[begin:end] = [""] * (end - begin)
        namespaces = [i for i, line in enumerate(self.lines) if re.match(r"namespace velox\b.*{", line)]
        ends = [i for i, line in enumerate(self.lines) if line.startswith("}  // namespace")]
        for begin, end in zip(namespaces, ends):
            self.out[begin] += f" /** @openmodule{{{self.module}}} */"
            self.out[end] = "/** @} */ " + self.out[end]

    def intro(self):
        """The lines of the comment that is about all of the header; none when the first one is about a name."""
        begin = next((i for i, line in enumerate(self.lines) if line.startswith("///")), 0)
        end = begin
        while self.lines[end].startswith("///"):
            end += 1
        if self.lines[end] and not self.lines[end].startswith("namespace"):
            return 0, 0
        return begin, end

    def walk(self):
        comment = None  # the one that counts for the next declaration
        own = False  # it stands right above it
        containers = []  # how each that is open ends; an enumeration has no declarations
        i = 0
        while i < len(self.lines):
            line = self.lines[i]
            stripped = line.strip()
            if self.begins_comment(i):
                begin = i
                while self.lines[i].strip().startswith("//"):
                    self.out[i] = self.lines[i][:self.lines[i].index("/")] + "/// " + text_of(self.lines[i])
                    i += 1
                comment, own = [text_of(line) for line in self.lines[begin:i]], True
                if re.match(r"#define \w", self.lines[i]):
                    self.out[i - 1] += f" @nl @ingroup {self.module}"
                continue
            if SECTION.match(line):
                i, comment = self.open_section(i), None
                continue
            if not stripped or stripped.startswith("//"):
                comment = None
                i += 1
                continue
            if stripped in ("public:", "protected:", "private:") or stripped.startswith("}"):
                self.end_private(i, len(containers))
            if stripped == "private:":
                self.private.append((i + 1, len(containers)))
            if stripped.startswith("}"):
                if containers:
                    containers.pop()
                if not containers and self.in_section:
                    self.out[i] = "/** @} */ " + self.out[i]
                    self.in_section = False
                comment = None
                i += 1
                continue
            if NO_NAME.match(line) and "(" not in line or (containers and containers[-1] == "enum"):
                comment = None if not own else comment
                own = False
                i += 1
                while NO_NAME.match(line) and line.endswith("\\"):
                    line = self.lines[i]
                    i += 1
                continue
            begin, i, kind = self.declaration(i)
            if kind:
                containers.append(kind)
                comment = None
                continue
            if set(containers) <= {"namespace"} and self.is_member(begin, i):
                self.out[begin:i] = [""] * (i - begin)
            self.describe(begin, i, comment, own)
            own = False
            if any("///<" in line for line in self.lines[begin:i]):
                comment = None

    def end_private(self, end, depth):
        if self.private and self.private[-1][1] == depth:
            begin, _ = self.private.pop()
            self.out[begin:end] = [""] * (end - begin)

    def begins_comment(self, i):
        """One for Doxygen: also a plain one, if it stands right above a declaration."""
        if self.lines[i].strip().startswith("///"):
            return True
        if SECTION.match(self.lines[i]):
            return False
        begin = i
        while self.lines[i].strip().startswith("//"):
            i += 1
        return i > begin and self.lines[i].strip() != ""

    def declaration(self, begin):
        """Finds the end of the declaration that begins here; for one whose members follow, their beginning."""
        depth = 0
        head = []
        for i in range(begin, len(self.lines)):
            code = code_of(self.lines[i])
            head.append(code)
            depth += sum(code.count(c) for c in "({") - sum(code.count(c) for c in ")}")
            if depth == 1 and code.endswith("{"):
                kind = next((m[1] for m in map(CONTAINER.match, head) if m), None)
                if kind:
                    return begin, i + 1, kind
            if depth == 0 and (code.endswith((";", "}")) or code.startswith("VELOX_COM_CLASSES")):
                return begin, i + 1, None
        raise SystemExit(f"{self.module}.hpp:{begin + 1}: a declaration without an end")

    def is_member(self, begin, end):
        """Whether it defines a member of a class that stands above."""
        return re.match(r"[^(]*::~?\w+ ?\(", " ".join(code_of(line) for line in self.lines[begin:end]))

    def describe(self, begin, end, comment, own):
        text = " ".join(code_of(line) for line in self.lines[begin:end])
        behind = re.search(r"; +//(/<)? +(.*)", self.lines[end - 1])
        if behind:
            self.out[end - 1] = self.lines[end - 1][:behind.start() + 1] + " ///< " + plain(behind[2])
        if own:
            return
        documented = behind or any("///<" in line for line in self.lines[begin:end])
        if "= delete" in text or (DESTRUCTOR.match(text) and not documented):
            self.out[begin:end] = [""] * (end - begin)
        elif comment and not documented and not NO_NAME.match(text) and not re.search(r"\boverride\b", text):
            self.out[begin] = in_one_line(comment) + " " + self.out[begin]

    def open_section(self, begin):
        """Heads a section, unless it holds classes."""
        title = SECTION.match(self.lines[begin])[1]
        end = begin + 1
        while self.lines[end].startswith("// "):
            end += 1
        rest = []
        for line in self.lines[end:]:
            if SECTION.match(line):
                break
            rest.append(line)
        closing = "/** @} */ " if self.in_section else ""
        self.in_section = not any(CONTAINER.match(line) and line.endswith("{") for line in rest)
        self.out[begin:end] = [""] * (end - begin)
        self.out[begin] = closing
        if self.in_section:
            about = [text_of(line) for line in self.lines[begin + 1:end]]
            title = title[0].upper() + title[1:]
            self.out[begin] += in_one_line([f"@name {title}"] + about + ["@{"])
        return end


if __name__ == "__main__":
    sys.stdout.reconfigure(encoding="utf-8", newline="\n")
    sys.stdout.write(Filter(pathlib.Path(sys.argv[1])).run())
