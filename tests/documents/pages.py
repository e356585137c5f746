"""The pages whose blocks are run, and the blocks that cannot be: each with its reason."""

import grammar
import written

# said     commands that the page says and that are not run, and why
# files    files of the repository that stand in the directory
# sources  the page itself sources the environment
# root     why only root can do it; else the test is skipped
# width    needs programs of 32 bits, where QELKRELL_BIN32 says; else the test is skipped
# left     how many blocks of a language are not run, and why
# run      what is to be done before going through the page, for blocks that are parts of programs
# then     what is to be done afterwards
PAGES = {
    "README.md": {
        "run": written.readme,
        "left": {"indented": (1, "they would run all tests, and so this one, again")},
    },
    "docs/tutorial.md": {
        "said": {"./dev build": "it made what this test uses; it takes minutes"},
        "sources": True,
    },
    "docs/types.md": {"run": written.types},
    "docs/python.md": {"run": written.python},
    "docs/howto/containers.md": {"sources": True, "root": "mounts, namespaces"},
    "docs/howto/many-collections.md": {"sources": True, "run": written.many},
    "docs/howto/standby.md": {"sources": True},
    "docs/howto/writer-restart.md": {"sources": True, "run": written.restart},
    "docs/howto/sizing.md": {"sources": True},
    "docs/howto/32-bit.md": {
        "said": {"./dev build": "it made what this test uses; it takes minutes",
                 "cmake --preset i386 -B build/use32 -DQELKRELL_TESTS=OFF":
                 "./dev test builds these programs, for all tests of two widths",
                 "cmake --build build/use32": "likewise"},
        "sources": True, "width": True,
    },
    "docs/howto/permissions.md": {"sources": True, "root": "several users"},
    "docs/tool.md": {"sources": True},
    "docs/packages.md": {
        "run": written.packages,
        "left": {"": (1, "they take minutes; .ci/run has the row packages test"),
                 "indented": (4, "packaging/bare.py runs three of them where the packages are "
                              "installed; recording would change the tree")},
    },
    "docs/text-form.md": {"sources": True, "then": grammar.check},
}

# Documents for who works on the library: their blocks are layouts, or commands for hours.
INTERNAL = {
    "docs/benchmarks.md": "commands that measure for minutes",
    "docs/concurrency.md": "protocols, as diagrams and pseudo code",
    "docs/file-format.md": "layouts of files",
    "docs/models.md": "commands and pieces of models, which tests/models runs",
    "docs/style.md": "what a comment looks like",
    "docs/testing.md": "commands that run for minutes, and what stands in tests",
    "docs/writer-unlock.md": "a file's contents",
}
