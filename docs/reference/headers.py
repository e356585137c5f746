#!/usr/bin/env python3
"""Shows Doxygen a header of this tree: its plain comments as documentation, line by line.

usage: headers.py HEADER

Writes the header to standard output with every line where it was:

- A comment directly above a declaration documents it. Outside of declarations, in the bodies of
  functions and above directives comments stay what they are.
- A comment behind a member or an enumerator documents that.
- The essay at the head of a file describes the class that has the file's name, or is the only one
  there; else the file.
- Lines indented by four and more are code, others that are indented a table or a diagram, kept as
  they stand; but `returns`, `errors`, `threads` and `cost` begin sections.
- A class is told the name of its header, as one includes it.
- A setter directly below its getter, and an overload directly below its like, share its comment.
- `// --- Title. Text` in a class heads a group of members, to the next one or the access specifier;
  a blank line stands between it and the comment of the first member.
"""

import os
import re
import sys

ROOT = os.path.realpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", ".."))
sys.path.insert(0, os.path.join(ROOT, "tests", "structure"))
import cxx  # noqa: E402

LABELS = {"returns": "\\returns", "errors": "\\errors", "threads": "\\threads", "cost": "\\cost"}
LABEL = re.compile(r"(?: {3}|(?=[A-Z]))(returns|errors|threads|cost)(?: {1,}|: )(?=\S)",
                   re.IGNORECASE)
CODE_INDENT = 5  # blanks behind the slashes
TABLE_INDENT = 3
COMMENT = re.compile(r"^(\s*)//(.*)$")
CLASS = re.compile(r"\b(class|struct|union)\s+(?:\[\[[^\]]*\]\]\s*)?(?:QEL_API\s+)?"
                   r"(?:alignas\([^)]*\)\s*)?(\w+)\s*(?:final\s*)?(?::[^:]|$)")
ACCESS = re.compile(r"\s*(public|protected|private)\s*:")
NOT_DECLARED = re.compile(r"\s*(?:$|[})#]|static_assert\b|(?:public|protected|private)\s*:|using namespace\b)")
EXCEPTION = re.compile(r"[A-Z]+_EXCEPTION\(")  # a macro that declares a class
# A declaration's name; none of a destructor, an operator, and of what is deleted or defaulted.
MEMBER = re.compile(r"(?!.*= (?:delete|default);)(?:[^(~]*[^\w~(])?([A-Za-z]\w*)\(")


def escaped(text):
    """Text of which Doxygen's commands and Markdown make nothing."""
    text = re.sub(r"[\\@<>&#%*]", r"\\\g<0>", text)
    return text.replace("--", "\\--")


def prose(text):
    """The same, with what stands in backticks as code."""
    parts = re.split(r"`([^`]+)`", text)
    return "".join(f"<code>{escaped(p)}</code>" if i % 2 else escaped(p)
                   for i, p in enumerate(parts))


def kinds(lines):
    """What each line of a comment is: `text`, `blank`, `code`, `table`, or a label of LABELS."""
    found = []
    in_section = False
    for line in lines:
        indent = len(line) - len(line.lstrip())
        label = LABEL.match(line) or LABEL.match(line[1:])
        if not line.strip():
            kind, in_section = "blank", False
        elif label and (indent == TABLE_INDENT or
                        found[-1:] in ([], ["blank"]) and line.lstrip()[0].isupper()
                        and ":" in label.group()):
            kind, in_section = label.group(1).lower(), True
        elif indent < TABLE_INDENT:
            kind, in_section = "text", in_section and indent > 1
        elif in_section:
            kind = "text"
        else:
            kind = "code" if indent >= CODE_INDENT else "table"
            # What is set in deeper below a table's row belongs to it.
            if kind == "code" and found[-1:] == ["table"]:
                kind = "table"
        found.append(kind)
    joined(found)
    return found


def joined(found):
    """Makes blank lines between lines of code, or of a table, part of it."""
    for at, kind in enumerate(found):
        if kind != "blank" or at == 0 or found[at - 1] not in ("code", "table"):
            continue
        behind = next((k for k in found[at:] if k != "blank"), "text")
        if behind == found[at - 1]:
            found[at] = behind


def documentation(lines):
    """The lines of a comment, each without its slashes, as lines of documentation."""
    found = kinds(lines)
    out = []
    run = []  # of text lines, which are looked at together: code may go on in the next line

    def flush():
        out.extend(prose("\n".join(run)).split("\n") if run else [])
        run.clear()

    for line, kind in zip(lines, found):
        if kind in ("text", "blank"):
            run.append(" " + line.strip() if line.strip() else "")
            continue
        flush()
        if kind in LABELS:
            inline = not line.startswith("   ")
            rest = LABEL.sub("", line.strip() if inline else line, count=1).strip()
            rest = rest[:1].upper() + rest[1:] if inline else rest
            out.append(f" {LABELS[kind]} {prose(rest)}")
        else:
            out.append(line)
    flush()
    return fenced(out, found)


def fenced(lines, found):
    """Puts the begin and the end of code and tables at the ends of lines, so that none is added."""
    out = list(lines)
    for at, kind in enumerate(found):
        if kind not in ("code", "table"):
            continue
        begin, end = f"\\code{{{'.cpp' if kind == 'code' else '.unparsed'}}}", "\\endcode"
        if at == 0:
            out[at] = f" {begin} {out[at].strip()}"
        elif found[at - 1] != kind:
            out[at - 1] += f" {begin}"
        if found[at + 1:at + 2] != [kind]:
            out[at] += f" {end}"
    return out


class Scopes:
    """Which lines stand among declarations: not in a function, an initializer or a macro."""

    def __init__(self, text):
        code = cxx.blanked(text)
        self.code = re.sub(r"^[ \t]*#(?:[^\n]*\\\n)*[^\n]*",
                           lambda m: re.sub(r"[^\n]", " ", m[0]), code, flags=re.MULTILINE)
        self.classes = []  # (first line, namespace, kind, name) of those in a namespace
        self.at = []       # of each line, the scopes that are open at its begin; None: a body
        self.parentheses = []
        self._walk()

    def _walk(self):
        stack, head, depth = [], "", 0
        for number, line in enumerate(self.code.split("\n")):
            self.at.append(None if "body" in [s[0] for s in stack] else list(stack))
            self.parentheses.append(depth)
            for c in line + "\n":
                depth += (c == "(") - (c == ")")
                if c == "{":
                    stack.append(self._scope(head, stack, number))
                elif c == "}" and stack:
                    stack.pop()
                head = "" if c in "{};" else head + c

    def _scope(self, head, stack, number):
        first = number - head.lstrip().count("\n")
        head = re.sub(r"template\s*<(?:[^<>]|<[^<>]*>)*>", "", head)
        space = re.search(r"\bnamespace\b\s*([\w:]*)\s*$", head)
        if space:
            return ("namespace", space.group(1))
        if "(" not in head.replace("alignas(", "") and re.search(r"\benum\b", head):
            return ("enum", "")
        found = CLASS.search(head)
        if found and "=" not in head:
            if all(s[0] == "namespace" for s in stack):
                space = "::".join(s[1] for s in stack)
                self.classes.append((first, space, found.group(1), found.group(2)))
            return ("class", found.group(2))
        if re.search(r"\b(class|struct|union)\b", head) and "(" not in head and "=" not in head:
            return ("class", "")
        return ("body", "")


class Header:
    def __init__(self, path, text):
        library, self.name = os.path.abspath(path).split(os.sep)[-2:]
        # Doxygen finds a file by the end of its name: it cannot tell Krell/X where there is a
        # QelKrell/X. Those have no page of their own.
        ambiguous = library == "Krell" and os.path.exists(
            os.path.join(ROOT, "src-includes", "QelKrell", self.name))
        self.page = "" if ambiguous else f"\\file {library}/{self.name}"
        self.include = "" if ambiguous else f" \\header{{{library}/{self.name}}}"
        self.lines = text.split("\n")
        self.scopes = Scopes(text)
        self.out = list(self.lines)
        self.before = {}   # line: what is put before it
        self.subject = ""
        self.group = None  # the depth of the class in which a group of members is open

    def filtered(self):
        first = self._essay()
        at = first
        while at < len(self.lines):
            end = self._block_end(at)
            if end > at:
                self._block(at, end)
            else:
                self._close_group(at)
                self._trailing(at)
                end = at + 1
            at = end
        return "\n".join((self.before.get(at, "") + self._rewritten(line)).rstrip()
                         for at, line in enumerate(self.out))

    def _block_end(self, at):
        while at < len(self.lines) and COMMENT.match(self.lines[at]):
            at += 1
        return at

    def _comment(self, begin, end):
        return [COMMENT.match(line).group(2) for line in self.lines[begin:end]]

    def _write(self, begin, lines):
        for i, line in enumerate(lines):
            indent = COMMENT.match(self.lines[begin + i]).group(1)
            self.out[begin + i] = f"{indent}///{line}"

    # --- The essay at the head

    def _essay(self):
        end = self._block_end(0)
        if end < 2:
            return end
        comment = self._comment(1, end)
        subject = self.subject = self._subject()
        self._write(1, documentation(comment))
        self.out[0] = f"/// \\{subject}" if subject else f"/// {self.page}"
        if subject and not subject.startswith("namespace"):
            self.out[end - 1] += self.include
        if subject and self.page:
            pragma = next(i for i, l in enumerate(self.lines) if l.startswith("#pragma once"))
            brief = re.split(r"(?<=\.)\s", " ".join(" ".join(comment).split()) + " ")[0]
            self.out[pragma] = f"/** {self.page} {prose(brief)} */"
        return end

    def _subject(self):
        """What the essay describes, as a command of Doxygen; empty: the file."""
        classes = self.scopes.classes
        named = [c for c in classes if c[3] == self.name]
        for line in self.lines:
            space = re.match(r"namespace ([\w:]*::" + self.name + r") \{", line)
            if space:
                return f"namespace {space.group(1)}"
        macros = any(re.match(r"[A-Z_]+\(", line) for line in self.lines)
        if not named and (macros or len(classes) != 1):
            return ""
        _, space, kind, name = (named or classes)[0]
        return f"{kind} {space}::{name}"

    # --- Comments above declarations

    def _block(self, begin, end):
        scope = self.scopes.at[begin]
        if scope is None or self.scopes.parentheses[begin] or end == len(self.lines):
            return
        comment = self._comment(begin, end)
        if comment[0].startswith(" --- "):
            self._open_group(begin, end, scope)
            return
        below = self.lines[end]
        if NOT_DECLARED.match(below) and not below.startswith("#define"):
            return
        lines = documentation(comment)
        defined = [f"{kind} {space}::{name}" for line, space, kind, name in self.scopes.classes
                   if line == end]
        if self.subject in defined:
            if self.subject.endswith("::" + self.name):
                lines[0] = f" \\details{lines[0]}"  # the essay has the brief description
        elif defined or EXCEPTION.match(below):
            lines[-1] += self.include
        self._write(begin, lines)
        if not {"code", "table"} & set(kinds(comment)):
            self._share(end, " ".join(line.strip() for line in lines if line.strip()), scope)

    def _share(self, at, text, scope):
        """Gives the comment to setters and overloads directly below the declaration too."""
        first = None
        while at < len(self.lines) and self.lines[at].strip() and not self._block_end(at) > at:
            if self.scopes.at[at] == scope and not self.scopes.parentheses[at]:
                name = MEMBER.match(self.lines[at])
                if first and name and self._is_like(name.group(1), first):
                    self.before[at] = f"/** {text} */ "
                elif first and name:
                    return
                first = first or (name and name.group(1))
            at += 1

    @staticmethod
    def _is_like(name, first):
        return name in (first, first + "Is", first + "Inc", first + "Dec")

    # --- Groups of members

    def _open_group(self, begin, end, scope):
        if not scope or scope[-1][0] != "class":
            return
        text = " ".join(" ".join(self._comment(begin, end)).split())[4:]
        title, _, rest = text.partition(". ")
        closed = "/**@}*/ " if self.group is not None else ""
        self.group = len(scope)
        self.out[begin:end] = [""] * (end - begin)
        self.out[begin] = f"{closed}/** \\name {escaped(title.rstrip('.'))}"
        self.before[end] = f"{prose(rest)} */ /**@{{*/ "

    def _close_group(self, at):
        scope = self.scopes.at[at]
        if self.group is None or scope is None or len(scope) != self.group:
            return
        if ACCESS.match(self.lines[at]) or self.lines[at].lstrip().startswith("}"):
            self.before[at] = "/**@}*/ "
            self.group = None

    # --- Comments behind declarations

    def _trailing(self, at):
        scope = self.scopes.at[at]
        line = self.lines[at]
        code = self.scopes.code.split("\n")[at]
        text = line[len(code.rstrip()):].strip()
        if not scope or not text.startswith("// ") or not code.strip() or ACCESS.match(code):
            return
        ends = (";", ",", "}") if scope[-1][0] != "enum" else ("", )
        if not code.rstrip().endswith(ends) or code.strip() in ("}", "};"):
            return
        if self.scopes.parentheses[at + 1]:
            return
        column = len(line) - len(text)
        self.out[at] = f"{line[:column]}///<{prose(text[2:])}"
        while (at + 1 < len(self.lines) and COMMENT.match(self.lines[at + 1]) and
               self.lines[at + 1].index("//") == column):
            at += 1
            self.out[at] = f"{self.lines[at][:column]}///<{prose(self.lines[at].strip()[2:])}"
            self.lines[at] = ""

    # --- What Doxygen does not take as it stands

    @staticmethod
    def _rewritten(line):
        # The nested class of a template, where it is defined outside and where a result names it.
        line = re.sub(r"^class (\w+)< \w+ >::(\w+)", r"class \1::\2", line)
        line = re.sub(r"\btypename (\w+)< (\w+) >::(?=\w+ >? ?\1< \2 >::)", "", line)
        # Comments in a macro go where it is used.
        return re.sub(r"^( +)/\* (.*) \*/( *\\)$", r"\1/** \2 */\3", line)


def filtered(path, text):
    return Header(path, text).filtered()


if __name__ == "__main__":
    with open(sys.argv[1], encoding="utf-8") as file:
        sys.stdout.write(filtered(sys.argv[1], file.read()))
