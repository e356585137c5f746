#!/usr/bin/env python3
"""Installs the packages on a bare Debian 12, uses them there, and takes them away again.

usage: bare.py PACKAGES TYPES

PACKAGES is the directory of the packages; the system is made below it, in memory, and is gone with
this process: `./dev packages test` starts it in namespaces of its own. TYPES is the plant's library
of types, as a user would ship it in a package without our headers. Exit status 1, with the step's
name and what it printed, when a step fails.
"""

import glob
import os
import queue
import re
import shutil
import signal
import subprocess
import sys
import threading
import time

PATIENCE = 60  # seconds for a line that a program is to print
SUITE = "bookworm"
DEVELOPMENT = "libqelkrell-dev"
# What package managers and the dynamic linker keep for themselves.
STATE = ("proc", "dev", "tmp", "opt", "var/lib/dpkg", "var/lib/apt", "var/cache", "var/log",
         "etc/ld.so.cache")
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LC_ALL": "C.UTF-8",
               "DEBIAN_FRONTEND": "noninteractive",
               **{name: os.environ[name] for name in ("http_proxy", "https_proxy", "no_proxy")
                  if name in os.environ}}
CERTIFICATES = "ca-certificates.crt"
APT = ("apt-get", "-q", "-o", "Dpkg::Use-Pty=0", "-o", "Acquire::Languages=none",
       "-o", "Acquire::Retries=3", "-o", "APT::Sandbox::User=root", "--no-install-recommends",
       "-o", "APT::Update::Error-Mode=any", "-o", "Acquire::https::CAInfo=/opt/" + CERTIFICATES)
HERE = os.path.dirname(os.path.abspath(__file__))
SCRIPTS = os.path.join(HERE, "bare")
PAGE = os.path.join(HERE, "..", "docs", "packages.md")  # whose commands are tried
EXAMPLES = "/usr/share/doc/libqelkrell-dev/examples/plant"


class Failed(Exception):
    pass


class Program:
    """A program in the system, with its lines as they come."""

    def __init__(self, root, *command):
        self.command = " ".join(command)
        self.process = subprocess.Popen(["chroot", root, *command], env=ENVIRONMENT, text=True,
                                        bufsize=1, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT)
        self.lines = queue.Queue()
        self.expected = set()
        threading.Thread(target=self.listen, daemon=True).start()

    def listen(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\n"))

    def say(self, line):
        try:
            self.process.stdin.write(line + "\n")
        except BrokenPipeError:
            raise Failed(f"{self.command}\nended; it printed {list(self.lines.queue)}") from None

    def expect(self, *wanted):
        """These lines come next, in any order. A reader may be told again what it has printed."""
        got = []
        try:
            while len(got) < len(wanted):
                line = self.lines.get(timeout=PATIENCE)
                if line not in self.expected:
                    got.append(line)
        except queue.Empty:
            pass
        if sorted(got) != sorted(wanted):
            raise Failed(f"{self.command}\nprinted {got}, not {list(wanted)}")
        self.expected.update(wanted)

    def end(self):
        self.process.stdin.close()
        try:
            status = self.process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            raise Failed(f"{self.command}\ndoes not end with its input") from None
        if status != 0:
            raise Failed(f"{self.command}\nended with status {status}; it printed "
                         f"{list(self.lines.queue)}")

    def kill(self):
        self.process.kill()
        self.process.wait()


def run(*command, **options):
    done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True,
                          stderr=subprocess.STDOUT, check=False, **options)
    if done.returncode != 0:
        raise Failed(f"{' '.join(command)}\nended with status {done.returncode}:\n{done.stdout}")
    return done.stdout


def mirror():
    """Where this machine's apt takes Debian from."""
    if shutil.which("apt-get"):
        done = subprocess.run(
            ["apt-get", "indextargets", "--format", "$(ORIGIN) $(COMPONENT) $(CODENAME) $(REPO_URI)",
             "Created-By: Packages"], stdout=subprocess.PIPE, text=True, check=False)
        for line in done.stdout.splitlines():
            origin, component, codename, uri = line.split(" ", 3)
            if (origin, component, codename) == ("Debian", "main", SUITE):
                return uri.rstrip("/")
    return "http://deb.debian.org/debian"


def said(program):
    """The command of that program on the page."""
    with open(PAGE, encoding="utf-8") as file:
        (command,) = [line.strip() for line in file if line.startswith(f"    {program} ")]
    return command


def names(files):
    """The packages that are in these package files."""
    return {os.path.basename(path).split("_")[0] for path in files}


class System:
    """The bare system below `root`; its own files come from a tarball once that has been made."""

    def __init__(self, packages):
        self.packages = packages
        self.root = os.path.join(packages, "bare")
        self.cache = os.path.join(packages, "cache")
        self.architecture = run("dpkg", "--print-architecture").strip()
        self.tarball = os.path.join(self.cache, f"{SUITE}-{self.architecture}.tar")

    def make(self):
        os.makedirs(self.root, exist_ok=True)
        os.makedirs(os.path.join(self.cache, "archives/partial"), exist_ok=True)
        run("mount", "-t", "tmpfs", "-o", "size=3g,mode=755", "bare", self.root)
        if os.path.exists(self.tarball):
            run("tar", "-C", self.root, "-xf", self.tarball)
        else:
            run("debootstrap", "--variant=minbase", f"--cache-dir={self.cache}/archives", SUITE,
                self.root, mirror())
            run("tar", "-C", self.root, "--exclude=./var/cache/apt/archives/*.deb",
                "--exclude=./proc/*", "-cf", self.tarball + ".new", ".")
            os.rename(self.tarball + ".new", self.tarball)
        for kind, where in (("proc", "proc"), ("tmpfs", "dev/shm")):
            os.makedirs(f"{self.root}/{where}", exist_ok=True)
            run("mount", "-t", kind, kind, f"{self.root}/{where}")
        run("mount", "--bind", f"{self.cache}/archives", f"{self.root}/var/cache/apt/archives")
        # The network as this machine sees it, and the certificates that it trusts.
        for path, inside in (("/etc/resolv.conf", "etc"), ("/etc/ssl/certs/" + CERTIFICATES, "opt")):
            if os.path.exists(path):
                shutil.copy(path, f"{self.root}/{inside}")
        for path in (*glob.glob(f"{self.packages}/*_{self.architecture}.deb"),
                     *glob.glob(f"{SCRIPTS}/*.py")):
            shutil.copy(path, f"{self.root}/opt")

    def run(self, *command, **options):
        return run("chroot", self.root, *command, env=ENVIRONMENT, **options)

    def start(self, *command):
        return Program(self.root, *command)

    def apt(self, *arguments):
        return self.run(*APT, "-y", *arguments)

    def ours(self, wanted=lambda name: True):
        """The package files, as seen from inside, of the packages that are wanted."""
        found = [os.path.basename(p) for p in sorted(glob.glob(f"{self.root}/opt/*.deb"))]
        return ["/opt/" + name for name in found if wanted(name.split("_")[0])]

    def runtime(self):
        """All but what is for development."""
        return self.ours(lambda name: name != DEVELOPMENT)

    def soname(self):
        """The number in the libraries' names, which is also in their package's."""
        (path,) = self.ours(lambda name: re.match(r"libqelkrell\d", name))
        return re.match(r"/opt/libqelkrell([\d.]+)_", path)[1]

    def purge(self):
        self.apt("purge", *sorted(names(self.ours()) & self.installed()))

    def needed(self, files):
        """The packages beside these that apt would install with them."""
        listed = self.run(*APT, "-s", "install", *files)
        found = {line.split()[1] for line in listed.splitlines() if line.startswith("Inst ")}
        return sorted(found - names(files))

    def installed(self):
        return set(self.run("dpkg-query", "-W", "-f", "${Package}\\n").split())

    def has(self, path):
        return os.path.exists(f"{self.root}{path}")

    def files(self):
        found = set()
        for directory, subdirectories, files in os.walk(self.root):
            inside = os.path.relpath(directory, self.root)
            subdirectories[:] = [d for d in subdirectories
                                 if os.path.normpath(os.path.join(inside, d)) not in STATE]
            for name in (*subdirectories, *files):
                path = os.path.normpath(os.path.join(inside, name))
                if path not in STATE:
                    found.add(path)
        return found


def same(before, after, what):
    if before != after:
        raise Failed(f"{what}:\nleft: {sorted(after - before)}\ngone: {sorted(before - after)}")


def demand(text, *wanted):
    for part in wanted:
        if part not in text:
            raise Failed(f"{part!r} is not in what was printed:\n{text}")


class Test:
    """The steps, in order. Each is a method; its first line says what it shows."""

    def __init__(self, packages, types):
        self.system = System(packages)
        self.types = types

    def bare(self):
        """a bare system"""
        self.system.make()
        self.system.run(*APT, "update")
        if self.system.has("/usr/bin/python3") or self.system.has("/usr/bin/g++"):
            raise Failed("it is not bare: it has Python or a compiler")

    def needed(self):
        """what runtime, tool and Python package need of Debian"""
        self.system.apt("install", *self.system.needed(self.system.runtime()))
        self.before = self.system.files(), self.system.installed()

    def alone(self):
        """the tool without its libraries is refused"""
        try:
            self.system.apt("install", *self.system.ours(lambda name: name == "qelkrell-tools"))
        except Failed as refused:
            demand(str(refused), f"Depends: libqelkrell{self.system.soname()} (= ")
        else:
            raise Failed("apt installed it")

    def install(self):
        """runtime, tool and Python package, nothing else of ours"""
        command = said("apt-get").replace("apt-get", " ".join(APT) + " -y", 1)
        self.system.run("sh", "-ec", "cd /opt; " + command)
        if not names(self.system.runtime()) <= self.system.installed():
            raise Failed("the command does not install all of them: " + command)
        if self.system.has("/usr/include/QelKrell") or DEVELOPMENT in self.system.installed():
            raise Failed(f"{DEVELOPMENT} is there too")
        demand(self.system.run("ldconfig", "-p"), f"\tlibQelKrell.so.{self.system.soname()} (")
        shutil.copy(self.types, f"{self.system.root}/opt")

    def tool(self):
        """krell --help"""
        demand(self.system.run("krell", "--help"), "tree", "doctor")

    def python(self):
        """a writer and a reader in Python, and what krell sees of them"""
        self.share("/opt/libplant-types.so")

    def share(self, types):
        shutil.rmtree(f"{self.system.root}/dev/shm/krell", ignore_errors=True)
        reader = self.system.start("python3", "/opt/reader.py", types)
        writer = self.system.start("python3", "/opt/writer.py", types)
        writer.expect("writing")
        writer.say("7 21.5")
        reader.expect("7: 21.5")
        writer.say("8 -3")
        reader.expect("8: -3.0")
        demand(self.system.run("krell", "tree"), "Power::Plant", "reading", "python3")
        dumped = self.system.run("krell", "dump", "site/Krell/north/plant/reading", "--types", types)
        demand(dumped, "21.5", "-3")
        self.system.run("krell", "doctor")
        writer.end()
        reader.kill()

    def again(self):
        """the same version installed again"""
        self.system.apt("install", "--reinstall", *self.system.runtime())
        self.python()

    def upgrade(self):
        """a later release in the place of this one, while a program uses it"""
        later = "/opt/later"
        os.makedirs(self.system.root + later)
        for path in self.system.runtime():
            self.system.run("sh", "-ec", f"""
                dpkg-deb -R {path} {later}/tree
                version=$( dpkg-deb -f {path} Version )
                sed -i -e "s/^Version: $version\\$/&+later/" -e "s/(= $version)/(= $version+later)/" \\
                    {later}/tree/DEBIAN/control
                dpkg-deb -b {later}/tree {later}
                rm -r {later}/tree""")
        writer = self.system.start("python3", "/opt/writer.py", "/opt/libplant-types.so")
        writer.expect("writing")
        self.system.apt("install", *(later + "/" + name
                                     for name in os.listdir(self.system.root + later)))
        listed = self.system.run("dpkg-query", "-W", "-f", "${Package} ${Version}\\n",
                                 *names(self.system.runtime()))
        if not all(line.endswith("+later") for line in listed.splitlines()):
            raise Failed("some are of the former version:\n" + listed)
        writer.say("9 1.5")
        writer.end()
        demand(self.system.run("krell", "dump", "site/Krell/north/plant/reading", "--types",
                               "/opt/libplant-types.so"), "1.5")
        self.python()

    def purged(self):
        """purged, with nothing left"""
        self.system.purge()
        same(self.before[0], self.system.files(), "files")
        same(self.before[1], self.system.installed(), "packages")

    def compilers(self):
        """a compiler, cmake and pkg-config"""
        self.system.apt("install", "g++", "cmake", "make", "pkgconf",
                        *self.system.needed(self.system.ours()))
        self.before = self.system.files(), self.system.installed()

    def develop(self):
        """libqelkrell-dev and all others"""
        self.system.apt("install", *self.system.ours())

    def build(self):
        """the installed examples built by find_package, and one by pkg-config"""
        self.system.run("sh", "-ec", "cd /opt; " + said("cmake"))
        program = f'#include "{EXAMPLES}/types.cpp"\n#include "{EXAMPLES}/list.cpp"\n'
        with open(f"{self.system.root}/opt/program.cpp", "w", encoding="utf-8") as file:
            file.write(program)
        self.system.run("sh", "-ec", "cd /opt; " + said("g++"))

    def examples(self):
        """the built types in Python; a built reader and writer, and the list, go on from there"""
        self.share("/opt/plant/libplant-types.so")
        reader = self.system.start("/opt/plant/plant-reader")
        reader.expect("7: 21.5", "8: -3")
        writer = self.system.start("/opt/plant/plant-writer", "--restart")
        writer.say("7 22.5")
        reader.expect("7: 22.5")
        writer.say("")
        writer.expect("1 swept")
        reader.expect("8 is gone")
        demand(self.system.run("krell", "tree"), "plant-writer")
        writer.end()
        reader.kill()
        if self.system.run("/opt/a.out") != "7: 22.5\n":
            raise Failed("the list printed:\n" + self.system.run("/opt/a.out"))

    STEPS = (bare, needed, alone, install, tool, python, again, upgrade, purged, compilers,
             develop, build, examples, purged)


def main(packages, types):
    # The first process of a namespace ignores what it does not handle.
    signal.signal(signal.SIGTERM, lambda number, frame: sys.exit("ended by a signal"))
    signal.signal(signal.SIGINT, lambda number, frame: sys.exit("ended by a signal"))
    test = Test(os.path.abspath(packages), os.path.abspath(types))
    for step in Test.STEPS:
        start = time.monotonic()
        try:
            step(test)
        except Failed as failed:
            print(f"FAILED: {step.__doc__}\n{failed}")
            return 1
        print(f"{time.monotonic() - start:6.1f} s  {step.__doc__}", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
