#!/usr/bin/env python3
"""Which public classes and functions of a directory's headers are not documented.

usage: coverage.py XML DIRECTORY

Reads what Doxygen wrote to the directory XML, where DIRECTORY is named as in `#include`, and prints FILE:LINE and the name of each that has no
comment; exit status 1 when there are any. Nobody has to comment what says all by its kind: what is
defaulted or deleted, destructors, constructors of documented classes, operators of the language but
calls, overrides, which have the comment of what they override, and what every type of the framework
answers, which main.md tells of.
"""

import os
import re
import sys
import xml.etree.ElementTree

COMMON = {"valueToStrep", "sequenceToValue", "_fwkType", "fwkType", "fwkTypeOf", "describe",
          "notifiees"}
OPERATOR = re.compile(r"operator(?!\(|\s*\w)")
PLAIN = re.compile(r"=\s*(?:default|delete)$")


def has_text(definition):
    return any("".join(found.itertext()).strip()
               for name in ("briefdescription", "detaileddescription")
               for found in definition.findall(name))


def says_itself(function, type_name):
    name = function.findtext("name")
    return (PLAIN.search(function.findtext("argsstring")) or name.startswith("~") or
            name == type_name or name in COMMON or OPERATOR.match(name) or
            function.find("reimplements") is not None)


def missing(xml_directory, directory):
    """Returns (checked, [(file, line, name)]) of what stands in headers below `directory`."""
    checked, found = 0, set()
    for entry in sorted(os.listdir(xml_directory)):
        if not entry.endswith(".xml"):
            continue
        tree = xml.etree.ElementTree.parse(os.path.join(xml_directory, entry))
        for compound in tree.iter("compounddef"):
            if compound.get("kind") not in ("class", "struct", "union", "namespace"):
                continue
            for what, name in definitions(compound):
                place = what.find("location")
                path = place.get("declfile") or place.get("file") if place is not None else ""
                if not path.startswith(directory + "/"):
                    continue
                checked += 1
                if not has_text(what):
                    line = place.get("declline") or place.get("line")
                    found.add((path, int(line), name))
    return checked, sorted(found)


def definitions(compound):
    """Yields the compound, unless it is a namespace, and its public functions and enumerations."""
    name = compound.findtext("compoundname")
    if compound.get("kind") != "namespace":
        if compound.get("prot") != "public":
            return
        yield compound, name
    own = name.rsplit("::", 1)[-1]
    for member in compound.iter("memberdef"):
        if member.get("prot") != "public" or member.get("kind") not in ("function", "enum"):
            continue
        if member.get("kind") == "enum" or not says_itself(member, own):
            yield member, f"{name}::{member.findtext('name')}"


def main(xml_directory, directory):
    checked, found = missing(xml_directory, directory)
    if not checked:
        print(f"nothing of {directory} in {xml_directory}")
        return 1
    for path, line, name in found:
        print(f"{path}:{line}: {name} has no comment")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
