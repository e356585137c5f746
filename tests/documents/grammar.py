"""The grammar of the text form, as the page writes it: random texts by its rules are read.

The rules are taken from the page's block, so that what it says is what is tried.
"""

import random
import re
import subprocess

TOKEN = re.compile(r"""\s*("[^"]*"|'[^']*'|[A-Za-z]+|[][(){}=|;])""")
CHARACTERS = [chr(c) for c in (*range(0x20, 0x7f), 0x0a, 0x09) if chr(c) not in "'\"\\"]
GIVEN = {
    "ws": lambda: "".join(random.choices(" \t\n\r\f\v", k=random.choice((0, 0, 0, 1, 2)))),
    "digit": lambda: random.choice("0123456789"),
    "hex": lambda: random.choice("0123456789abcdefABCDEF"),
    "character": lambda: random.choice(CHARACTERS),
    "TYPE": lambda: "Draw::Point",
}
# What the rules leave to the type, with the type that is read.
KINDS = {"integer": "S64", "real": "double", "boolean": "bool", "text": "Qel::String8",
         "value": "Draw::Point"}
READ = """
import sys
from qelkrell import load_types, parse
load_types("./libshapes.so")
for line in sys.stdin:
    kind, text = eval(line)
    try:
        parse(kind, text)
    except ValueError as e:
        if " is out of range for " not in str(e):
            sys.exit(f"{kind} {text!r}: {e}")
print("read")
"""


class Rules:
    def __init__(self, text):
        self.tokens = TOKEN.findall(text)
        self.rules = {}
        while self.tokens:
            name = self.tokens.pop(0)
            assert self.tokens.pop(0) == "=", name
            self.rules[name] = self.choice()
            assert self.tokens.pop(0) == ";", name

    def choice(self):
        found = [self.sequence()]
        while self.tokens[0] == "|":
            self.tokens.pop(0)
            found.append(self.sequence())
        return lambda: random.choice(found)()

    def sequence(self):
        found = []
        while self.tokens[0] not in ("|", ";", ")", "]", "}"):
            found.append(self.item())
        return lambda: "".join(one() for one in found)

    def item(self):
        token = self.tokens.pop(0)
        if token in "([{":
            inner = self.choice()
            assert self.tokens.pop(0) == {"(": ")", "[": "]", "{": "}"}[token]
            most = {"(": (1, 1), "[": (0, 1), "{": (0, 3)}[token]
            return lambda: "".join(inner() for _ in range(random.randint(*most)))
        if token[0] in "'\"":
            return lambda: token[1:-1]
        return lambda: self.one(token)

    def one(self, name):
        return GIVEN[name]() if name in GIVEN else self.rules[name]()


def sentences(rules):
    for _ in range(2000):
        for rule, kind in KINDS.items():
            if rule == "real":  # the names that float() takes are told beside the rules
                rules.rules["text"], kept = lambda: "'-inf'", rules.rules["text"]
                yield kind, rules.one(rule)
                rules.rules["text"] = kept
            elif rule == "value":
                name, number = random.choice((("'x'", "integer"), ('"y"', "real")))
                rules.rules["pair"] = lambda n=name, r=number: \
                    rules.one("ws") + n + rules.one("ws") + ":" + \
                    re.sub(r"float.*", "float('nan')", rules.one(r), flags=re.S)
                yield kind, rules.one(rule)
            else:
                yield kind, rules.one(rule)


def check(test, use, blocks):
    """Runs when the page's library of types is there."""
    (block,) = (block for block in blocks if block.language == "ebnf")
    block.used = True
    rules = Rules(block.text)
    seed = random.randrange(1 << 32)
    random.seed(seed)
    lines = "".join(repr(one) + "\n" for one in sentences(rules))
    done = subprocess.run(["/usr/bin/python3", "-c", READ], input=lines, text=True, env=use.sourced,
                          cwd=use.directory, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          check=False)
    test.assertEqual(done.stdout, "read\n", f"seed {seed}")
