"""What the structure checks share: the C++ files of the tree, and their text without comments."""

import os
import re

SKIPPED_DIRECTORIES = {"build", "__pycache__"}
SUFFIXES = (".cpp", ".h")
# Below these, a file without an extension is a header.
HEADER_ROOTS = ("libs/", "collection/", "src-includes/")


def tracked(root):
    """Paths of all files, relative to root, sorted; hidden directories but .ci are skipped."""
    found = []
    for directory, subdirectories, files in os.walk(root):
        subdirectories[:] = [
            d for d in subdirectories
            if d not in SKIPPED_DIRECTORIES and (d == ".ci" or not d.startswith("."))
        ]
        for name in files:
            found.append(os.path.relpath(os.path.join(directory, name), root))
    return sorted(found)


def is_header(path):
    name = os.path.basename(path)
    return name.endswith(".h") or ("." not in name and path.startswith(HEADER_ROOTS))


def is_cxx(path):
    return path.endswith(SUFFIXES) or is_header(path)


def cxx_files(root):
    return [p for p in tracked(root) if is_cxx(p)]


def read(root, path):
    with open(os.path.join(root, path), encoding="utf-8", errors="replace") as file:
        return file.read()


_TOKEN = re.compile(
    r"""
    (?P<comment> //[^\n]* | /\*.*?\*/ )
  | (?P<raw> R"(?P<delimiter>[^(\s]*)\(.*?\)(?P=delimiter)" )
  | (?P<string> "(?:\\.|[^"\\\n])*" )
  | (?P<number> (?<![\w.])\d[\w.']* )
  | (?P<char> '(?:\\.|[^'\\\n])+' )
    """,
    re.VERBOSE | re.DOTALL,
)


def blanked(text):
    """The text with comments and the insides of literals as blanks; lines stay where they were."""
    def replaced(match):
        found = match.group()
        if match.lastgroup == "number":
            return found
        kept = re.sub(r"[^\n]", " ", found)
        if match.group("comment"):
            return kept
        return found[0] + kept[1:-1] + found[-1] if len(kept) > 1 else kept
    return _TOKEN.sub(replaced, text)


def comments(text):
    """Yields (line number, comment text)."""
    for match in _TOKEN.finditer(text):
        if match.group("comment"):
            yield text.count("\n", 0, match.start()) + 1, match.group()


def report(violations):
    """Prints them and returns the exit status."""
    for line in violations:
        print(line)
    print(f"{len(violations)} violations" if violations else "no violations")
    return 1 if violations else 0
