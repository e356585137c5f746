"""Entities whose collections many processes share, from Python.

    import qelkrell

    qelkrell.load_types("libplant-types.so")
    site = qelkrell.Site("site")
    plant = site.mount("north/plant", "Power::Plant", "reader")
    print(plant.reading[7].celsius)

    async for sensor in qelkrell.changes(plant.reading):
        print(sensor, plant.reading.get(sensor))

All of it belongs to one thread, the one that runs the event loop.
"""

import asyncio as _asyncio

from ._core import (Collection, Entity, Error, Site, Value, Watch, descriptor, load_types, parse,
                    run, run_once, stop, strep, type_names_in)
from ._core import *  # noqa: F401,F403  the exceptions, by their names

WRITER, SHADOW, READER, KEYSHADOW = "writer", "shadow", "reader", "keyshadow"


class Pointer(tuple):
    """The text form of an address in some process: a type's name and a number."""

    def __new__(cls, type_name, address):
        return super().__new__(cls, (type_name, address))


def _text(value):
    """Text forms write text byte by byte."""
    if isinstance(value, str):
        return value.encode("latin-1").decode("utf-8", "surrogateescape")
    return [_text(one) for one in value] if isinstance(value, list) else value


def _value(type_name, /, **attributes):
    return Value(type_name, **{name: _text(value) for name, value in attributes.items()})


def evaluate(text):
    """The value that a framework's text form says: an expression of literals, Value and Pointer.

    It is evaluated as Python: only for text of which one knows where it comes from; parse() takes
    any. `repr( value )` is an expression too, with text as Python writes it.
    """
    names = {"Value": _value, "Pointer": Pointer, "float": float, "__builtins__": {}}
    return _text(eval(text, names))


class _Loop:
    """Turns the framework's event loop whenever its descriptor says so, in an asyncio loop."""

    def __init__(self):
        self.users = {}  # by asyncio loop
        self.fresh = []  # changes before their first round

    def enter(self):
        loop = _asyncio.get_running_loop()
        self.users[loop] = self.users.get(loop, 0) + 1
        if self.users[loop] == 1:
            loop.add_reader(descriptor(), self.turn)
        return loop

    def leave(self, loop):
        self.users[loop] -= 1
        if not self.users[loop]:
            del self.users[loop]
            if not loop.is_closed():
                loop.remove_reader(descriptor())

    def turn(self):
        if run_once(0.0):
            fresh, self.fresh = self.fresh, []
            for one in fresh:
                one._settle()


_loop = _Loop()


class changes:
    """The keys of a collection that change, as they do: `async for key in changes(collection)`.

    First come those that are there. A key that changes again before it was taken comes once. No
    thread and no polling: the asyncio loop watches the framework's descriptor.
    """

    def __init__(self, collection):
        self._collection = collection
        self._keys = {}  # in the order of their first change
        self._listed = []
        self._taken = {}  # while the mount is fresh: key: the collection's last change then
        self._loop = None
        self._waiting = None
        self._watch = None

    def __aiter__(self):
        if self._watch is None:
            self._loop = _loop.enter()
            self._watch = self._collection.watch(self._put)
            _loop.fresh.append(self)
            for key in self._collection.keys():
                self._put(key)
                self._listed.append(key)
        return self

    def _settle(self):
        """After the first round of a new mount: what went before it is not told."""
        for key in self._listed:
            if self._watch is not None and key not in self._collection:
                self._put(key)
        self._listed = []
        self._taken = {}

    def _put(self, key):
        # The first round of a new mount tells of everything: not again of what was listed already.
        if key in self._taken and self._taken[key] == self._collection.control.sequence():
            return
        self._keys[key] = None
        if self._waiting is not None and not self._waiting.done():
            self._waiting.set_result(None)

    async def __anext__(self):
        while not self._keys:
            self._waiting = self._loop.create_future()
            await self._waiting
        key = next(iter(self._keys))
        del self._keys[key]
        if self._listed:
            self._taken[key] = self._collection.control.sequence()
        return key

    async def aclose(self):
        self.close()

    def close(self):
        """No more changes come."""
        if self._watch is not None:
            self._watch.close()
            self._watch = None
            _loop.leave(self._loop)

    def __del__(self):
        self.close()
