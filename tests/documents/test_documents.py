#!/usr/bin/env python3
"""What the documents show, compiled and run: test_documents.py SOURCE BUILD COMPILER FLAG..."""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import textwrap
import threading
import unittest

SOURCE, BUILD, COMPILER, *FLAGS = sys.argv[1:]
del sys.argv[1:]
PATIENCE = 120  # seconds
INCLUDES = ["-I" + os.path.join(SOURCE, directory) for directory in
            ("src-includes", "libs/Qel/include", "libs/Krell/include", "libs/Dov/include",
             "libs/Norvo/include", "collection")]
LIBRARIES = os.path.join(BUILD, "lib")
INCLUDED = """
#include <cstdio>
#include <iostream>
#include <Norvo/EntityManager>
#include <Qel/FixedString>
#include <Qel/System>
#include <Qel/TypeLibrary>
#include <QelKrell/Collection>
#include <QelKrell/KrellMount>
"""
MOUNT = """
    auto manager = Norvo::entityManagerFactory( "site", false );
    QelKrell::Mount mount( manager );
    mount.handleInitialized();
"""


def blocks(document, language):
    with open(os.path.join(SOURCE, document), encoding="utf-8") as file:
        text = file.read()
    return re.findall(r"^```" + language + r"\n(.*?)^```$", text, re.MULTILINE | re.DOTALL)


class Documents(unittest.TestCase):
    def setUp(self):
        self.root = tempfile.mkdtemp(prefix="qelkrell-documents-", dir="/dev/shm")
        self.environment = dict(os.environ, KRELL_ROOT=self.root,
                                PYTHONPATH=os.path.join(BUILD, "python"))
        self.running = []

    def tearDown(self):
        for process in self.running:
            process.kill()
            process.communicate()
        shutil.rmtree(self.root)

    def compiled(self, name, body):
        path = os.path.join(self.root, name)
        done = subprocess.run([COMPILER, "-std=c++20", "-Wall", "-Wextra", "-x", "c++", "-", "-o",
                               path, *FLAGS, *INCLUDES, "-L" + LIBRARIES, "-lQelKrell", "-lKrell",
                               "-lNorvo", "-lDov", "-lQel", "-Wl,-rpath," + LIBRARIES],
                              input=INCLUDED + body, text=True, capture_output=True)
        self.assertEqual(done.returncode, 0, done.stderr[:3000])
        return path

    def start(self, *command):
        process = subprocess.Popen(command, env=self.environment, text=True, bufsize=1,
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.running.append(process)
        return process

    def line(self, process):
        timer = threading.Timer(PATIENCE, process.kill)
        timer.start()
        try:
            return process.stdout.readline().rstrip("\n")
        finally:
            timer.cancel()

    def test_the_readme(self):
        types, writer, reader = blocks("README.md", "cpp")
        main = "%s\nint main() { %s %s }\n"
        wait = 'std::puts( "written" ); std::fflush( stdout ); std::getchar();'
        program = self.start(self.compiled("writer", main % (types, writer, wait)))
        self.assertEqual(self.line(program), "written")
        reader = reader.replace('"\\n"', "std::endl")
        follower = self.start(self.compiled("reader", main % (types, MOUNT, reader)))
        self.assertEqual(self.line(follower), "7: 21.5")
        (python,) = blocks("README.md", "python")
        library = os.path.join(LIBRARIES, "libplant-types.so")
        source = textwrap.dedent("""
            import asyncio
            import qelkrell
            qelkrell.load_types(%r)
            site = qelkrell.Site("site")
            async def main():
            """) % library + textwrap.indent(python.replace('}")', '}", flush=True)'), "    ")
        follower = self.start("/usr/bin/python3", "-c", source + "\nasyncio.run(main())\n")
        # The library's plant has one collection more: of those that it shares the layout is one.
        self.assertEqual(self.line(follower), "7: 21.5")

    def test_the_page_of_types(self):
        types, registration = blocks("docs/types.md", "cpp")
        self.compiled("types", types + registration + "\nint main() {}\n")

    def test_the_page_of_python(self):
        first, writes, follows, watches = blocks("docs/python.md", "python")
        library = os.path.join(LIBRARIES, "libplant-types.so")
        first = first.replace("./libplant-types.so", library)
        begin, _, listing = first.partition('plant = site.mount("north/plant", "Power::Plant", '
                                            '"reader")\n')
        script = "\n".join([
            "import asyncio", begin, writes, listing, "async def follow():",
            "    plant.reading[7] = {'sensor': 7, 'celsius': 21.5}",
            textwrap.indent(follows, "    ") + "        break", "asyncio.run(follow())",
            watches.replace("qelkrell.run()", "plant.reading[9] = {'sensor': 9, 'celsius': 1.0}")])
        script = script.replace("del plant.reading[7]", "plant.reading[8] = {'sensor': 8}\n"
                                "del plant.reading[8]")
        done = subprocess.run(["/usr/bin/python3", "-c", script], env=self.environment, text=True,
                              capture_output=True, timeout=PATIENCE)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(done.stdout.splitlines(), [
            "7 21.5", "7 Value('Power::Reading', ** {'sensor': 7, 'celsius': 21.5})",
            "changed: 9"])


unittest.main()
