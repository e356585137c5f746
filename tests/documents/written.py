"""Pages whose blocks are parts of programs: what stands around them, and what they print then."""

import os
import subprocess
import textwrap

import harness

PATIENCE = 120  # seconds
INCLUDED = """
#include <cstdio>
#include <iostream>
#include <Norvo/EntityManager>
#include <Qel/FixedString>
#include <Qel/System>
#include <Qel/TypeLibrary>
#include <QelKrell/Collection>
#include <QelKrell/FaultGuard>
#include <QelKrell/KrellMount>
#include <QelKrell/WriterUnlock>
"""
MOUNT = """
    auto manager = Norvo::entityManagerFactory( "site", false );
    QelKrell::Mount mount( manager );
    mount.handleInitialized();
"""
MAIN = "%s\nint main() { %s %s }\n"


def take(blocks, language, count):
    """The unnamed blocks of a language, of which there are so many."""
    found = [block for block in blocks if block.language == language and not block.argument]
    assert len(found) == count, f"{len(found)} {language} blocks instead of {count}"
    for block in found:
        block.used = True
    return [block.text for block in found]


def compiled(test, use, name, body, compiler):
    """A program of that name in the directory."""
    path = os.path.join(use.directory, name)
    prefix = os.path.join(use.directory, "build", "use", "installed")
    done = subprocess.run([*compiler.split(), "-std=c++20", "-Wall", "-Wextra", "-x", "c++", "-",
                           "-o", path, "-I" + os.path.join(prefix, "include"),
                           "-L" + os.path.join(prefix, "lib"), "-lQelKrell", "-lKrell", "-lNorvo",
                           "-lDov", "-lQel"], input=INCLUDED + body, text=True,
                          capture_output=True, check=False)
    test.assertEqual(done.returncode, 0, done.stderr[:3000])
    return path


class Running:
    """A program, and the lines that it prints as they come."""

    def __init__(self, test, use, *command):
        self.process = subprocess.Popen(command, env=use.sourced, text=True, bufsize=1,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        cwd=use.directory)
        test.addCleanup(self.end)

    def line(self):
        return self.process.stdout.readline().rstrip("\n")

    def end(self):
        self.process.kill()
        self.process.communicate()


def readme(test, use, blocks, compiler):
    types, writer, reader = take(blocks, "cpp", 3)
    wait = 'std::puts( "written" ); std::fflush( stdout ); std::getchar();'
    program = Running(test, use, compiled(test, use, "writer", MAIN % (types, writer, wait),
                                          compiler))
    test.assertEqual(program.line(), "written")
    reader = reader.replace('"\\n"', "std::endl")
    follower = Running(test, use, compiled(test, use, "reader", MAIN % (types, MOUNT, reader),
                                           compiler))
    test.assertEqual(follower.line(), "7: 21.5")
    (python,) = take(blocks, "python", 1)
    library = os.path.join(use.directory, "build", "use", "lib", "libplant-types.so")
    source = textwrap.dedent("""
        import asyncio
        import qelkrell
        qelkrell.load_types(%r)
        site = qelkrell.Site("site")
        async def main():
        """) % library + textwrap.indent(python.replace('}")', '}", flush=True)'), "    ")
    follower = Running(test, use, "/usr/bin/python3", "-c", source + "\nasyncio.run(main())\n")
    # The library's plant has one collection more: of those that it shares the layout is one.
    test.assertEqual(follower.line(), "7: 21.5")


def types(test, use, blocks, compiler):
    plant, registration = take(blocks, "cpp", 2)
    (refusal,) = take(blocks, "text", 1)
    mount = MOUNT + """
        try {
            mount.doMount( "north/plant", "Power::Plant", QelKrell::MountInfo( QelKrell::%s ) );
        } catch ( const Qel::Exception& e ) {
            std::cout << e.what() << std::endl;
        }
        std::puts( "mounted" );
        """
    # Two other versions: the writer's has the time besides, the reader's fewer digits.
    newer = plant.replace("double celsius = 0;", "double celsius = 0;\n    Qel::U64 takenAt = 0;") \
        .replace('"celsius", &Reading::celsius )',
                 '"celsius", &Reading::celsius ),\n Qel::attribute( "takenAt", &Reading::takenAt )')
    older = plant.replace("double celsius", "float celsius")
    mount_writer = mount.replace(
        "try {", "try { QelKrell::MountInfo info( QelKrell::writer );\n"
        'info.collectionInfoIs( { "reading", 10 } );').replace(
            "QelKrell::MountInfo( QelKrell::%s )", "info")
    said = []
    for name, text in (("writer", newer + registration + "int main() { %s }" % mount_writer),
                       ("reader", older + registration + "int main() { %s }" % (mount % "reader"))):
        program = compiled(test, use, name, text, compiler)
        said.append(subprocess.run([program], env=use.sourced, text=True, check=True,
                                   stdout=subprocess.PIPE).stdout)
    test.assertEqual(said[0], "mounted\n")
    test.assertTrue(harness.matches([" ".join(refusal.split())], [said[1].split("\n")[0]]), said[1])


def python(test, use, blocks, _):
    first, writes, follows, watches = take(blocks, "python", 4)
    library = os.path.join(use.directory, "build", "use", "lib", "libplant-types.so")
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
    done = subprocess.run(["/usr/bin/python3", "-c", script], env=use.sourced, text=True,
                          capture_output=True, timeout=PATIENCE, check=False)
    test.assertEqual(done.returncode, 0, done.stderr)
    test.assertEqual(done.stdout.splitlines(), [
        "7 21.5", "7 Value('Power::Reading', ** {'sensor': 7, 'celsius': 21.5})", "changed: 9"])


def packages(test, use, blocks, compiler):
    """The page's lines for CMake, in a project of a newcomer."""
    (lines,) = take(blocks, "cmake", 1)
    project = os.path.join(use.directory, "project")
    os.mkdir(project)
    for name, text in (("CMakeLists.txt", "cmake_minimum_required( VERSION 3.25 )\n"
                        "project( program LANGUAGES CXX )\nadd_executable( program program.cpp )\n"
                        + lines),
                       ("program.cpp", INCLUDED + "int main() { %s std::puts( mount.initialized() "
                        '? "there" : "" ); }' % MOUNT)):
        with open(os.path.join(project, name), "w", encoding="utf-8") as file:
            file.write(text)
    build = os.path.join(project, "build")
    for command in (["cmake", "-S", project, "-B", build, "-DCMAKE_CXX_COMPILER=" +
                     compiler.split()[0], "-DCMAKE_PREFIX_PATH=" +
                     os.path.join(use.directory, "build", "use", "installed")],
                    ["cmake", "--build", build], [os.path.join(build, "program")]):
        done = subprocess.run(command, env=use.sourced, text=True, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=PATIENCE, check=False)
        test.assertEqual(done.returncode, 0, done.stdout)
    test.assertEqual(done.stdout, "there\n")


def restart(test, use, blocks, compiler):
    (sweeping,) = take(blocks, "cpp", 1)
    (comparing,) = take(blocks, "python", 1)
    plant = '#include "%s/examples/plant/Plant.h"\n' % use.directory + \
        'QEL_TYPES( "power", Reading, Pump, Plant );\n#include <map>\n'
    mount = MOUNT + """
        QelKrell::MountInfo info( QelKrell::writer );
        info.collectionInfoIs( { "reading", 10 } );
        auto plant = Qel::ptrCast< Plant >( mount.doMount( "a", "Power::Plant", info ) );
        const auto is = [ & ]( Qel::U32 sensor ) { plant->reading.is( { sensor, 1 } ); };
        is( 1 ); is( 2 ); is( 3 );
        const auto watch = plant->reading.onEntry( []( Qel::U32 s ) { std::cout << s << " "; } );
        const std::map< Qel::U32, double > present { { 2, 1 }, { 3, 5 } };
        """
    program = Running(test, use, compiled(test, use, "restart", plant +
                                          "int main() { %s %s }\n" % (mount, sweeping), compiler))
    test.assertEqual(program.line(), "3 1 1 swept")
    library = os.path.join(use.directory, "build", "use", "lib", "libplant-types.so")
    script = "\n".join([
        "import qelkrell", "qelkrell.load_types(%r)" % library, "plant = qelkrell.Site('site')"
        ".mount('b', 'Power::Plant', 'writer')",
        "for s in 7, 9: plant.reading[s] = {'sensor': s, 'celsius': 21.5}",
        "watch = plant.reading.watch(lambda s: print(s, end=' '))", comparing])
    done = subprocess.run(["/usr/bin/python3", "-c", script], env=use.sourced, text=True,
                          stdout=subprocess.PIPE, timeout=PATIENCE, check=True)
    test.assertEqual(done.stdout, "9 10 ")


def many(test, use, blocks, _):
    (finding,) = take(blocks, "python", 1)
    library = os.path.join(use.directory, "build", "use", "lib", "libplant-types.so")
    script = "\n".join([
        "import os, qelkrell", "qelkrell.load_types(%r)" % library, "site = qelkrell.Site('site')",
        "if os.fork() == 0:",
        "    plants = [site.mount(f'north/{i}', 'Power::Plant', 'writer') for i in range(3)]",
        "    other = site.mount('south', 'Power::Plant', 'writer')",
        "    os._exit(0)", "os.wait()",
        "descriptors = lambda: len(os.listdir('/proc/self/fd'))",
        finding.replace('site.unmount("north")', 'print(descriptors())\nsite.unmount("north")'),
        "print(descriptors(), sorted(site.find('north')))"])
    done = subprocess.run(["/usr/bin/python3", "-c", script], env=use.sourced, text=True,
                          stdout=subprocess.PIPE, timeout=PATIENCE, check=True)
    mounted, rest = done.stdout.split("\n", 1)
    left, found = rest.split(" ", 1)
    test.assertEqual(found, "['/site/Krell/north/0', '/site/Krell/north/1', "
                     "'/site/Krell/north/2']\n")
    test.assertEqual(int(mounted) - int(left), 6)  # two collections each
