#!/usr/bin/env python3
"""Checks that every #include in the tree is one that layers.txt allows.

usage: layers.py ROOT [LAYERS_FILE]

Prints FILE:LINE and what is wrong for each violation; exit status 1 when there are any.
"""

import os
import re
import sys

import cxx

# Where the compiler looks for <Qel/Entity> and the like, relative to the root.
INCLUDE_ROOTS = (
    "libs/Qel/include", "libs/Dov/include", "libs/Norvo/include", "libs/Krell/include",
    "collection", "src-includes", "tests", "",
)
OUR_PREFIXES = ("Qel/", "Dov/", "Norvo/", "Krell/", "QelKrell/")
# Headers of the system that stand in a directory; anything else with a "/" is a foreign library.
SYSTEM_PREFIXES = ("sys/", "linux/", "netinet/", "arpa/", "net/", "asm/")
FOREIGN = {
    "tests": ("gtest/", "gmock/"),
    "bench": ("benchmark/", "absl/", "boost/", "hiredis/", "urcu/"),
    "bindings": ("pybind11/",),
    "tools": ("CLI/", "nlohmann/"),
}

INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*([<"])([^>"\n]+)[>"]', re.MULTILINE)


class Layers:
    """The table: which layer a file is in, and what that layer may include."""

    def __init__(self, text):
        self.members = {}  # path of a file or directory -> layer
        self.allowed = {}  # layer -> {layer: None for all, or set of header names}
        for number, line in enumerate(text.splitlines(), 1):
            line = line.split("#")[0].strip()
            declared = re.fullmatch(r"layer (\w+):(.*)", line)
            rule = re.fullmatch(r"(\w+) ->(.*)", line)
            if declared:
                for path in self._expanded(declared[2]):
                    self.members[path] = declared[1]
            elif rule:
                self.allowed[rule[1]] = self._targets(rule[2])
            elif line:
                raise ValueError(f"line {number} is neither a layer nor a rule: {line}")
        for layer in self.allowed:
            unknown = set(self.allowed[layer]) - set(self.members.values()) - {"*"}
            if unknown or layer not in self.members.values():
                raise ValueError(f"the rule of '{layer}' names an unknown layer {unknown or layer}")

    @staticmethod
    def _expanded(text):
        for head, names, plain in re.findall(r"(\S*)\{([^}]*)\}|(\S+)", text):
            yield from ([head + n for n in names.split()] if names else [plain])

    @staticmethod
    def _targets(text):
        found = {}
        for layer, names in re.findall(r"([\w*]+)(?:\{([^}]*)\})?", text):
            found[layer] = set(names.split()) if names else None
        return found

    def of(self, path):
        while path:
            if path in self.members:
                return self.members[path]
            path = os.path.dirname(path)
        return None

    def refusal(self, layer, target, header):
        """Why a file of `layer` may not include `header` of `target`; None when it may."""
        rule = self.allowed.get(layer, {})
        if layer == target or "*" in rule:
            return None
        if target not in rule:
            return f"{layer} may not include {target}"
        if rule[target] is not None and header not in rule[target]:
            return f"{layer} may include of {target} only {', '.join(sorted(rule[target]))}"
        return None


def resolved(root, including, quote, name):
    """The file of ours that the include names, relative to root; None when it is not ours."""
    candidates = [os.path.join(r, name) for r in INCLUDE_ROOTS]
    if quote == '"':
        candidates.insert(0, os.path.join(os.path.dirname(including), name))
    for candidate in candidates:
        candidate = os.path.normpath(candidate)
        if os.path.isfile(os.path.join(root, candidate)):
            return candidate
    return None


def foreign(path, name):
    """Why a header that is not ours may not be included here; None when it may."""
    if name.startswith(OUR_PREFIXES):
        return "no such header"
    allowed = SYSTEM_PREFIXES + FOREIGN.get(path.split("/")[0], ())
    if "/" in name and not name.startswith(allowed):
        return "neither ours nor of the standard library or the system"
    return None


def check(root, layers):
    violations = []
    for path in cxx.cxx_files(root):
        text = cxx.read(root, path)
        code = cxx.blanked(text)
        layer = layers.of(path)
        if layer is None:
            violations.append(f"{path}:1: is in no layer of layers.txt")
            continue
        for match in INCLUDE.finditer(text):
            if code[text.index("#", match.start())] != "#":
                continue  # inside a comment or a literal
            quote, name = match.groups()
            target = resolved(root, path, quote, name)
            if target is None:
                why = foreign(path, name)
            elif layers.of(target) is None:
                why = f"{target} is in no layer of layers.txt"
            else:
                why = layers.refusal(layer, layers.of(target), name)
            if why:
                line = text.count("\n", 0, match.start(1)) + 1
                violations.append(f"{path}:{line}: #include of {name}: {why}")
    return violations


def main(arguments):
    root = arguments[1]
    here = os.path.dirname(os.path.abspath(__file__))
    table = arguments[2] if len(arguments) > 2 else os.path.join(here, "layers.txt")
    with open(table, encoding="utf-8") as file:
        layers = Layers(file.read())
    return cxx.report(check(root, layers))


if __name__ == "__main__":
    sys.exit(main(sys.argv))
