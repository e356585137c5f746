"""A root of its own for each test, the libraries of types, and other processes."""

import multiprocessing
import os
import shutil
import tempfile

import pytest

import qelkrell

LIBRARIES = os.environ["QELKRELL_LIB"]
qelkrell.load_types(os.path.join(LIBRARIES, "libpython-kinds.so"))
qelkrell.load_types(os.path.join(LIBRARIES, "libplant-types.so"))

_sites = {}


@pytest.fixture
def root():
    path = tempfile.mkdtemp(prefix="qelkrell-python-", dir="/dev/shm")
    os.environ["KRELL_ROOT"] = path
    yield path
    shutil.rmtree(path)


@pytest.fixture
def site(root, request):
    """A system of its own: the process keeps them."""
    name = f"site{len(_sites)}"
    _sites[name] = qelkrell.Site(name)
    yield _sites[name]
    _sites[name].unmount_all()


class Process:
    """Another process that runs `body( connection )`, forked before it mounts anything."""

    def __init__(self, body):
        context = multiprocessing.get_context("fork")
        self.pipe, theirs = context.Pipe()
        self.process = context.Process(target=body, args=(theirs,))
        self.process.start()
        theirs.close()

    def hear(self):
        assert self.pipe.poll(60), "it says nothing"
        return self.pipe.recv()

    def say(self, what):
        self.pipe.send(what)

    def kill(self):
        self.process.kill()
        self.process.join(60)


@pytest.fixture
def fork():
    processes = []

    def start(body):
        processes.append(Process(body))
        return processes[-1]

    yield start
    for process in processes:
        process.kill()
