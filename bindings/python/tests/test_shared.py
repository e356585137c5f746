"""Collections that processes share: each role, each operation, each mistake."""

import os
import sys

import pytest

import qelkrell
from qelkrell import Value

PLANT = ("north/plant", "Power::Plant")


def reading(sensor, celsius):
    return Value("Power::Reading", sensor=sensor, celsius=celsius)


def writer(connection):
    """Another process: writes what it is told, turning its loop meanwhile."""
    plant = site_like_others().mount(*PLANT, role="writer", sizes={"reading": 100})
    connection.send("ready")
    while True:
        while not connection.poll():
            qelkrell.run_once(0.002)
        what = connection.recv()
        for sensor, celsius in what:
            if celsius is None:
                del plant.reading[sensor]
            else:
                plant.reading[sensor] = reading(sensor, celsius)
        connection.send("done")


def site_like_others():
    if not hasattr(site_like_others, "site"):
        site_like_others.site = qelkrell.Site("site")
    return site_like_others.site


@pytest.fixture
def shared(root):
    """The site whose entities the writer process has too."""
    site = site_like_others()
    yield site
    site.unmount_all()


def test_a_writer_reads_what_it_wrote(site):
    plant = site.mount(*PLANT, role="writer", sizes={"reading": 10})
    assert len(plant.reading) == 0 and 7 not in plant.reading
    plant.reading[7] = reading(7, 21.5)
    plant.reading[8] = {"sensor": 8, "celsius": -3.0}
    assert plant.reading[7].celsius == 21.5
    assert sorted(plant.reading) == [7, 8]
    assert sorted(v.celsius for v in plant.reading.values()) == [-3.0, 21.5]
    assert 8 in plant.reading and plant.reading.get(9) is None
    assert plant.reading.get(9, "none") == "none"
    del plant.reading[8]
    assert not plant.reading.discard(8)
    with pytest.raises(KeyError):
        plant.reading[8]
    with pytest.raises(KeyError):
        del plant.reading[8]


def test_keys_and_values_of_every_kind(site):
    things = site.mount("things", "Kinds::Things", role="writer")
    key = Value("Kinds::Key", name="eth0", port=80)
    thing = Value("Kinds::All", key=key, numbers=[1, 2, 3, 4], text="déjà", colour="blue")
    things.thing[key] = thing
    assert things.thing[key] == thing
    assert things.thing[{"name": "eth0", "port": 80}] == thing
    assert list(things.thing) == [key]


@pytest.mark.parametrize("role", ["reader", "keyshadow", "shadow"])
def test_another_process_sees_it_and_is_told(shared, fork, role):
    other = fork(writer)
    assert other.hear() == "ready"
    plant = shared.mount(*PLANT, role=role)
    told = []
    watch = plant.reading.watch(told.append)
    other.say([(7, 21.5), (8, 1.0)])
    assert other.hear() == "done"
    while len(set(told)) < 2:
        qelkrell.run_once(1.0)
    assert sorted(set(told)) == [7, 8]
    assert plant.reading[7] == reading(7, 21.5)
    other.say([(8, None)])
    assert other.hear() == "done"
    while 8 in plant.reading or told.count(8) < 2:
        qelkrell.run_once(1.0)
    watch.close()
    before = list(told)
    other.kill()
    assert plant.reading[7].celsius == 21.5  # what a dead writer wrote stays
    qelkrell.run_once(0.0)
    assert told == before


def test_operations_of_the_control_are_called_by_name(site):
    plant = site.mount(*PLANT, role="writer", sizes={"reading": 10})
    control = plant.reading.control
    assert control.capacity() >= 10
    assert control.mountStatus() == "connected" or control.mountStatus() == "attached"
    assert control.validate() is True
    assert str(os.getpid()) in control.owner()
    assert control.yieldTimeIs(yieldTime=0.5) in (True, False)
    assert "maxSize" in dir(control) and control.maxSize() > 1 << 20
    with pytest.raises(TypeError, match="nonsense"):
        control.capacity(nonsense=1)
    with pytest.raises(AttributeError):
        control.nonsense()


def test_mistakes_are_told_and_change_nothing(site, fork, root):
    plant = site.mount(*PLANT, role="writer", sizes={"reading": 10})
    plant.reading[7] = reading(7, 1.0)
    with pytest.raises(IndexError, match="is not the key of"):
        plant.reading[8] = reading(7, 2.0)
    with pytest.raises(TypeError):
        plant.reading[7] = Value("Kinds::Place")
    with pytest.raises(ValueError):
        plant.reading["seven"]
    with pytest.raises(ValueError):
        plant.reading[7] = {"sensor": 7, "celsius": "hot"}
    with pytest.raises(AttributeError):
        plant.nonsense
    assert plant.reading[7].celsius == 1.0
    with pytest.raises(AttributeError, match="no shared collection 'nonsense'"):
        site.mount("south", "Power::Plant", role="writer", sizes={"nonsense": 1})
    with pytest.raises(ValueError, match="there is no type"):
        site.mount("south", "No::Type")
    with pytest.raises(ValueError, match="boss"):
        site.mount("south", "Power::Plant", role="boss")
    with pytest.raises(ValueError):
        site.unmount("")


def test_a_second_writer_is_refused_with_the_first_ones_pid(shared, fork):
    other = fork(writer)
    assert other.hear() == "ready"
    with pytest.raises(qelkrell.DuplicateWriterException) as refused:
        shared.mount(*PLANT, role="writer")
    assert refused.value.pid == other.process.pid
    assert isinstance(refused.value, qelkrell.Error)
    other.kill()
    shared.unmount_all()
    assert shared.mount(*PLANT, role="writer").reading.control.owner()


def test_readers_do_not_write(site, root):
    plant = site.mount(*PLANT)
    with pytest.raises(qelkrell.InvalidInitializeException):
        plant.reading[7] = reading(7, 1.0)


def test_files_are_found_and_cleaned_up(site):
    plant = site.mount(*PLANT, role="writer", sizes={"reading": 10})
    plant.reading[7] = reading(7, 1.0)
    del plant  # it is mounted while somebody holds it
    site.unmount("north/plant")
    assert any("north/plant" in path for path in site.find())
    site.cleanup("north/plant")  # the file of the lock stays, and so the place is found
    plant = site.mount(*PLANT, role="writer", sizes={"reading": 10})
    assert len(plant.reading) == 0


def test_a_reaction_that_fails_is_reported_and_goes_on(site, monkeypatch):
    plant = site.mount(*PLANT, role="writer", sizes={"reading": 10})
    told = []

    def fails(key):
        told.append(key)
        raise RuntimeError("on purpose")

    reported = []
    monkeypatch.setattr(sys, "unraisablehook", lambda args: reported.append(args.exc_value))
    watch = plant.reading.watch(fails)
    plant.reading[1] = reading(1, 1.0)
    plant.reading[2] = reading(2, 1.0)
    assert told == [1, 2]
    assert [str(e) for e in reported] == ["on purpose"] * 2
    watch.close()
