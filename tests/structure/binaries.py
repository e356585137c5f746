#!/usr/bin/env python3
"""Checks what a build leaves behind: exported names, needed libraries, the type section.

usage: binaries.py exports LIBRARY
       binaries.py symbols LIBRARY FILE [--record]
       binaries.py needed LIBRARY
       binaries.py atomics DIRECTORY...
       binaries.py types LIBRARY
       binaries.py types-of-source SOURCE COMPILER [FLAG...]

Prints what is wrong; exit status 1 when anything is.
"""

import collections
import os
import re
import subprocess
import sys
import tempfile

# The namespaces whose names a library shows, and the libraries of ours that it may need.
NAMESPACES = {
    "Qel": ["Qel"],
    "Dov": ["Dov"],
    "Norvo": ["Norvo"],
    "Krell": ["Krell"],
    "QelKrell": ["QelKrell", "Krell"],
}
# The framework's text function, instantiated for a type of the binding.
FURTHER_NAMES = {"QelKrell": [r"_ZN3Qel12strepToValueIN8QelKrell"]}
OURS = {
    "Qel": [],
    "Dov": ["Qel"],
    "Norvo": ["Qel"],
    "Krell": ["Dov", "Qel"],
    "QelKrell": ["Krell", "Norvo", "Dov", "Qel"],
}
SYSTEM = r"lib(stdc\+\+|m|gcc_s|c)\.so\.\d+|ld-linux[\w-]*\.so\.\d+|lib(asan|ubsan|tsan)\.so\.\d+"

TYPE_NAMES = [
    "QelKrell::" + name for name in (
        "ReaderCounters", "WriterCounters", "CollectionControl", "QelKrellType", "RootPath",
        "WriterUnlock", "WriterUnlockSm", "CollectionInfo", "MountInfo", "KrellEntities", "Mount",
        "QelMountStatus",
    )
]
TYPE_SECTION = ".qel.type"
TYPE_SECTION_SIZE = 278


def output(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout


def library_name(path):
    return re.fullmatch(r"lib(\w+)\.so.*", os.path.basename(path))[1]


def exported(library):
    """The mangled names that the library defines for others."""
    listed = output("nm", "-D", "--defined-only", "--format=posix", library)
    return [line.split("@")[0].split()[0] for line in listed.splitlines()]


def of_namespace(namespace):
    return (r"_Z(?:T[VISTC]|GV|Z|GVZ|T[hvc][\dn_]+_)?N[rVKRO]*"
            + f"{len(namespace)}{namespace}")


def check_exports(library):
    name = library_name(library)
    patterns = [of_namespace(n) for n in NAMESPACES[name]] + FURTHER_NAMES.get(name, [])
    allowed = re.compile("|".join(patterns))
    names = exported(library)
    strange = [n for n in names if not allowed.match(n)]
    if not names:
        return [f"{library} exports nothing"]
    if not strange:
        return []
    readable = output("c++filt", *strange).splitlines()
    return [f"{library} exports {text}  ({n})" for n, text in zip(strange, readable)]


def strong(library):
    """The mangled names that the library defines for others and nobody else does.

    What inline functions and templates leave, and the type information of classes without a virtual
    function in a source, is weak: every user that needs it has it, and whether the library has it
    too is the optimiser's affair.
    """
    listed = output("nm", "-D", "--defined-only", "--format=posix", library)
    kinds = dict(line.split()[:2] for line in listed.splitlines())
    return {name.split("@")[0] for name, kind in kinds.items() if kind not in "VWu"}


def with_key_function(library):
    """Mangled names of the classes of which a source has a virtual function, which the library
    exports: their virtual tables and type information stand there alone, although they are weak."""
    functions = strong(library)
    called = {}
    for offset, name in re.findall(r"^([0-9a-f]+) +[0-9a-f]+ R_\S+_64 +[0-9a-f]+ (\S+)",
                                   output("readelf", "-rW", library), re.MULTILINE):
        called[int(offset, 16)] = name.split("@")[0]
    tables = re.findall(r"^ *\d+: ([0-9a-f]+) +(\d+) OBJECT .* _ZTVN(\S+)E$",
                        output("readelf", "--dyn-syms", "-W", library), re.MULTILINE)
    for begin, size, name in tables:
        entries = {called.get(int(begin, 16) + at) for at in range(0, int(size), 8)}
        own = re.compile(rf"_ZNK?{re.escape(name)}[\dD]")
        if any(own.match(entry) for entry in entries & functions):
            yield f"N{name}E"


def symbols(library):
    """What the library exports and nobody else defines, as sorted readable lines.

    Names that read alike, as of a constructor's forms, are one line, with the parts of the mangled
    names in which they differ.
    """
    classes = {f"_ZT{kind}{name}" for name in with_key_function(library) for kind in "VISTC"}
    names = sorted(strong(library) | classes & set(exported(library)))
    alike = collections.defaultdict(list)
    for name, text in zip(names, output("c++filt", *names).splitlines()):
        alike[text].append(name)
    return sorted(text + forms(same) for text, same in alike.items())


def forms(names):
    if len(names) == 1:
        return ""
    begin = len(os.path.commonprefix(names))
    end = len(os.path.commonprefix([name[:begin - 1:-1] for name in names]))
    return f"  [{' '.join(name[begin:len(name) - end] for name in names)}]"


def check_symbols(library, path, *options):
    """What the library exports is what the file lists; `--record` writes the file instead."""
    now = symbols(library)
    if options == ("--record",):
        with open(path, "w", encoding="utf-8") as file:
            file.write("\n".join(now) + "\n")
        return []
    if not os.path.exists(path):
        return [f"{path} is not there: `./dev symbols --record` writes it"]
    with open(path, encoding="utf-8") as file:
        recorded = file.read().splitlines()
    if now == recorded:
        return []
    name = os.path.basename(library)
    return ([f"{name} no longer exports {text}" for text in recorded if text not in now]
            + [f"{name} newly exports {text}" for text in now if text not in recorded]
            + [f"{path} lists what a release promises: if this is meant, `./dev symbols --record` "
               "writes it anew"])


def check_needed(library):
    ours = "|".join(rf"lib{n}\.so(\.\d+)*" for n in OURS[library_name(library)])
    allowed = re.compile(f"({SYSTEM}|{ours})" if ours else SYSTEM)
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", output("readelf", "-dW", library))
    if not needed:
        return [f"{library} needs no library at all: not a shared library of this build"]
    return [f"{library} needs {n}" for n in needed if not allowed.fullmatch(n)]


def check_atomics(*directories):
    """No call into libatomic: those take locks, which processes cannot share."""
    files = []
    for directory in directories:
        for name in sorted(os.listdir(directory)):
            path = os.path.join(directory, name)
            if os.path.isfile(path) and not os.path.islink(path):
                files.append(path)
    if not files:
        return [f"nothing to check in {' '.join(directories)}"]
    found = []
    for path in files:
        listed = output("nm", "-D", "--undefined-only", path)
        found += [f"{path} calls {n}" for n in re.findall(r"\b__atomic_\w+", listed)]
    return found


def type_section(path):
    """The bytes of the section, or None."""
    with tempfile.TemporaryDirectory() as directory:
        dumped = os.path.join(directory, "section")
        copied = os.path.join(directory, "copy")
        done = subprocess.run(
            ["objcopy", "--dump-section", f"{TYPE_SECTION}={dumped}", path, copied],
            stderr=subprocess.PIPE, check=False)
        if done.returncode != 0 or not os.path.exists(dumped):
            return None
        with open(dumped, "rb") as file:
            return file.read()


def check_type_section(path, state):
    content = type_section(path)
    if content is None:
        return [f"{path} has no section {TYPE_SECTION} {state}"]
    names = content.decode("latin-1").split("\0")
    found = []
    if len(content) != TYPE_SECTION_SIZE:
        found.append(f"{TYPE_SECTION} is {len(content)} bytes, not {TYPE_SECTION_SIZE}, {state}")
    if names != TYPE_NAMES + [""]:
        found.append(f"{TYPE_SECTION} lists {names} {state}")
    return found


def check_types(library):
    with tempfile.TemporaryDirectory() as directory:
        stripped = os.path.join(directory, "stripped.so")
        output("strip", "-o", stripped, library)
        return (check_type_section(library, "as built")
                + check_type_section(stripped, "after strip"))


def check_types_of_source(source, compiler, *flags):
    """The section survives builds in which nothing else refers to it."""
    root = os.path.dirname(os.path.dirname(os.path.abspath(source)))
    common = [compiler, *flags, "-std=c++20", "-O2", "-fPIC", "-fvisibility=hidden", "-shared",
              "-I", root, "-I", os.path.join(root, "src-includes"),
              "-I", os.path.join(root, "libs/Qel/include"), source]
    found = []
    for state, extra in (
            ("with section garbage collection",
             ["-ffunction-sections", "-fdata-sections", "-Wl,--gc-sections"]),
            ("with link-time optimisation",
             ["-flto", "-ffunction-sections", "-fdata-sections", "-Wl,--gc-sections"]),
            ("with link-time optimisation and -s", ["-flto", "-Wl,--gc-sections", "-s"])):
        with tempfile.TemporaryDirectory() as directory:
            library = os.path.join(directory, "library.so")
            output(*common, *extra, "-o", library)
            found += check_type_section(library, state)
    return found


CHECKS = {
    "exports": check_exports,
    "symbols": check_symbols,
    "needed": check_needed,
    "atomics": check_atomics,
    "types": check_types,
    "types-of-source": check_types_of_source,
}


if __name__ == "__main__":
    violations = CHECKS[sys.argv[1]](*sys.argv[2:])
    print("\n".join(violations) or "no violations")
    sys.exit(1 if violations else 0)
