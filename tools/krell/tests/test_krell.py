"""The tool against the plant's programs: what it tells, and that it changes nothing."""

import hashlib
import json
import os
import pty
import queue
import re
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

import pytest
from prometheus_client.parser import text_string_to_metric_families

BIN = os.environ["QELKRELL_BIN"]
LIB = os.environ["QELKRELL_LIB"]
TYPES = os.path.join(LIB, "libplant-types.so")
PLANT = "/site/Krell/north/plant"
READING = PLANT + "/reading"
DASHBOARD = os.path.join(os.path.dirname(__file__), "..", "dashboard.json")
PATIENCE = 60  # seconds


@pytest.fixture
def root(monkeypatch):
    path = tempfile.mkdtemp(prefix="qelkrell-tool-", dir="/dev/shm")
    monkeypatch.setenv("KRELL_ROOT", path)
    yield path
    shutil.rmtree(path)


class Program:
    """A running one, with its lines as they come."""

    def __init__(self, name, *arguments):
        self.process = subprocess.Popen([os.path.join(BIN, name), *arguments], text=True,
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.pid = self.process.pid
        self.lines = queue.Queue()
        threading.Thread(target=self.listen, daemon=True).start()

    def listen(self):
        for line in self.process.stdout:
            self.lines.put(line.rstrip("\n"))

    def say(self, *lines):
        self.process.stdin.write("".join(line + "\n" for line in lines))
        self.process.stdin.flush()

    def line(self):
        return self.lines.get(timeout=PATIENCE)

    def kill(self):
        self.process.kill()
        self.process.wait(PATIENCE)


@pytest.fixture
def start(root):
    programs = []

    def run(name, *arguments):
        programs.append(Program(name, *arguments))
        return programs[-1]

    yield run
    for program in programs:
        program.kill()


def krell(*arguments, status=0):
    done = subprocess.run([os.path.join(BIN, "krell"), *arguments], text=True, timeout=PATIENCE,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert done.returncode == status, done.stdout + done.stderr
    return done.stdout if status != 2 else done.stderr


def until(condition):
    end = time.monotonic() + PATIENCE
    while not (found := condition()):
        assert time.monotonic() < end, "it never came"
        time.sleep(0.02)
    return found


def reading():
    return next(one for one in json.loads(krell("tree", "--json")) if one["path"] == READING)


@pytest.fixture
def writer(start):
    program = start("plant-writer")
    program.say("7 21.5", "8 -3")
    until(lambda: json.loads(krell("tree", "--json")) and reading().get("entries") == 2)
    return program


@pytest.fixture
def reader(start, writer):
    program = start("plant-reader")
    assert sorted([program.line(), program.line()]) == ["7: 21.5", "8: -3"]
    until(lambda: [r for r in reading()["readers"] if r["lag"] == 0])
    return program


def picture(root):
    found = {}
    for directory, names, files in os.walk(root):
        for name in names + files:
            path = os.path.join(directory, name)
            status = os.lstat(path)
            bytes_ = open(path, "rb").read() if os.path.isfile(path) else b""
            found[path] = (status.st_mode, status.st_ino, status.st_size, status.st_mtime_ns,
                           hashlib.sha256(bytes_).hexdigest())
    return found


def test_tree_shows_types_writer_readers_and_room(writer, reader):
    one = reading()
    assert one["entityType"] == "Power::Plant" and one["valueType"] == "Power::Reading"
    assert one["entries"] == 2 and one["capacity"] >= 1000 and one["sequence"] == 2
    assert one["writer"]["pid"] == writer.pid and one["writer"]["uid"] == os.getuid()
    assert abs(one["writer"]["since"] - time.time()) < 600
    assert [r["pid"] for r in one["readers"]] == [reader.pid]
    text = krell("tree")
    assert f"{PLANT}  Power::Plant\n" in text
    assert f"plant-writer (pid {writer.pid}, uid {os.getuid()}, for " in text
    assert "readers: 1" in text and f"incarnation {one['incarnation']:08x}" in text


def test_who_names_the_writer_and_each_readers_lag(writer, reader):
    os.kill(reader.pid, signal.SIGSTOP)
    writer.say(*[f"{sensor} 1" for sensor in range(100, 150)])
    until(lambda: reading()["sequence"] == 52)
    assert [r["lag"] for r in reading()["readers"]] == [50]
    text = krell("who", READING)
    assert f"writer: plant-writer (pid {writer.pid}" in text
    assert f"reader: plant-reader (pid {reader.pid}, uid {os.getuid()}), 50 changes behind" in text
    os.kill(reader.pid, signal.SIGCONT)
    until(lambda: [r["lag"] for r in reading()["readers"]] == [0])


def test_dump_shows_entries_by_type_or_as_they_stand(writer):
    typed = krell("dump", READING, "--types", TYPES)
    assert sorted(typed.splitlines()) == [
        "7: Value('Power::Reading', ** {'sensor': 7, 'celsius': 21.5})",
        "8: Value('Power::Reading', ** {'sensor': 8, 'celsius': -3.0})"]
    lines = krell("dump", PLANT, "--types", TYPES, "--json").splitlines()
    assert {"key": 7, "value": {"sensor": 7, "celsius": 21.5}} in [json.loads(li) for li in lines]
    raw = krell("dump", READING)
    assert "07000000: 0000000000803540" in raw.splitlines()
    writer.kill()
    assert krell("dump", READING) == raw
    assert sorted(krell("dump", READING, "--types", TYPES).splitlines()) == sorted(
        typed.splitlines())


@pytest.mark.parametrize("arguments, lines", [
    (["--types", TYPES], ["9: Value('Power::Reading', ** {'sensor': 9, 'celsius': 1.5})",
                          "7: gone"]),
    ([], ["09000000: 000000000000f83f", "07000000: gone"]),
    (["--json"], ['{"key":"09000000","value":"000000000000f83f"}',
                  '{"key":"07000000","value":null}']),
])
def test_watch_shows_changes_as_they_come(writer, start, arguments, lines):
    watch = start("krell", "watch", READING, *arguments, "--changes", "4")
    watch.line()  # what there is, first
    watch.line()
    writer.say("9 1.5")
    assert watch.line() == lines[0]
    writer.say("7 gone")
    assert watch.line() == lines[1]
    assert watch.process.wait(PATIENCE) == 0


def test_watch_ends_when_it_is_told_to(writer, start):
    watch = start("krell", "watch", READING)
    watch.line()
    watch.process.send_signal(signal.SIGINT)
    assert watch.process.wait(PATIENCE) == 0


def test_top_tells_rates_and_who_is_slowest(writer, reader):
    os.kill(reader.pid, signal.SIGSTOP)
    top = subprocess.Popen([os.path.join(BIN, "krell"), "top", "--json", "--interval", "1"],
                           text=True, stdout=subprocess.PIPE)
    n = 1000
    while top.poll() is None:
        writer.say(*[f"{n + i} 1" for i in range(20)])
        n += 20
        time.sleep(0.01)
    one = next(one for one in json.loads(top.stdout.read()) if one["path"] == READING)
    assert one["changesPerSecond"] > 0 and one["readers"] == 1
    assert 0 < one["keysPerSecond"] <= one["changesPerSecond"]
    (lag,) = one["lags"]
    assert lag["pid"] == reader.pid and lag["changes"] > 0
    text = krell("top", "--once", "--interval", "0.1")
    assert text.count(f"plant-reader (pid {reader.pid})") == 1
    text = krell("top", "--once", "--interval", "0.1", "--readers")
    assert text.count(f"plant-reader (pid {reader.pid})") == 2


def during_top(action, interval="1"):
    """What it tells of the readings when that was done after its first look, and within it."""
    top = subprocess.Popen([os.path.join(BIN, "krell"), "top", "--json", "--interval", interval],
                           text=True, stdout=subprocess.PIPE)
    maps = f"/proc/{top.pid}/maps"
    end = time.monotonic() + PATIENCE
    while READING + "/conquer" not in open(maps, encoding="utf-8").read():
        assert time.monotonic() < end
        time.sleep(0.001)
    action()
    one = next(one for one in json.loads(top.stdout.read()) if one["path"] == READING)
    assert top.wait(PATIENCE) == 0
    return one


def test_top_counts_a_key_that_changes_often_once(writer):
    def change():
        writer.say(*[f"7 {i}" for i in range(1000)], "")
        assert "swept" in writer.line()

    one = during_top(change, "2")
    assert 800 < one["changesPerSecond"] / one["keysPerSecond"] <= 1001


def test_top_counts_restarts_and_remaps(writer, start):
    def restart():
        writer.kill()
        another = start("plant-writer")
        another.say(*[f"{i} 1" for i in range(100, 3000)], "")
        assert "swept" in another.line()

    one = during_top(restart, "3")
    assert one["restarts"] == 1
    assert one["remaps"] > 0
    assert one["entries"] > 2900


def test_top_fills_the_screen_until_q(writer, reader):
    child, terminal = pty.fork()
    if child == 0:
        os.environ.update(TERM="xterm", COLUMNS="200", LINES="40")
        os.execv(os.path.join(BIN, "krell"), ["krell", "top", "--interval", "0.2"])
    seen = b""
    end = time.monotonic() + PATIENCE
    while b"CHANGES/s" not in seen or READING.encode() not in seen:
        assert time.monotonic() < end, seen
        if select.select([terminal], [], [], 1)[0]:
            seen += os.read(terminal, 65536)
    os.write(terminal, b"q")
    while True:
        try:
            if not os.read(terminal, 65536):
                break
        except OSError:
            break
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0


def test_doctor_finds_nothing_at_what_is_well(writer, reader):
    assert "0 findings" in krell("doctor")
    assert json.loads(krell("doctor", "--json")) == []


def findings(status):
    return [(f["severity"], f["what"]) for f in json.loads(krell("doctor", "--json",
                                                                 status=status))]


def test_doctor_tells_of_a_writer_that_died(writer):
    writer.kill()
    found = findings(0)
    assert any(severity == "note" and "ended without unmounting" in what
               for severity, what in found), found
    assert "start its writer: it takes over what is there" in krell("doctor")


@pytest.mark.parametrize("damage, says", [
    (lambda d: os.chmod(d, 0o777), "everybody may write to its directory"),
    (lambda d: os.chmod(d, 0o770), "its group may write to its directory"),
    (lambda d: os.chmod(d + "/slots", 0o666), "others than its user may write"),
    (lambda d: os.link(d + "/slots", d + "/../more"), "is a link, or not a file"),
    (lambda d: open(d + "/corrupt", "w").close(), "corrupt is none of its files"),
    (lambda d: open(d + "/corruption-detected", "w").close(), "marked them so"),
    (lambda d: os.truncate(d + "/slots", 100), "slots"),
    (lambda d: os.pwrite(os.open(d + "/slots", os.O_RDWR), b"NOTSLOTS", 0), "slots"),
    (lambda d: os.pwrite(os.open(d + "/slots", os.O_RDWR), b"\x63", 8), "version"),
    (lambda d: os.pwrite(os.open(d + "/buckets", os.O_RDWR), b"\xff" * 64, 0), "buckets"),
])
def test_doctor_finds_what_is_wrong(writer, root, damage, says):
    writer.kill()
    damage(root + READING)
    found = findings(1)
    assert any(says in what for _, what in found), found


def test_doctor_finds_two_versions_of_a_type(root):
    for place, library in (("a", "types-first.so"), ("b", "types-second.so")):
        subprocess.run([sys.executable, "-c", f"""
import qelkrell
qelkrell.load_types({os.path.join(BIN, library)!r})
qelkrell.Site("site").mount({place!r}, "Plug::Plant", "writer")
"""], check=True)
    found = findings(1)
    assert any("value celsius: double@0 there, float@0 here" in what for _, what in found), found


def families():
    """{name: family} of what the ecosystem's own parser makes of it."""
    return {family.name: family for family in text_string_to_metric_families(krell("metrics"))}


def test_metrics_are_of_prometheus_form(writer, reader):
    found = families()
    for name, family in found.items():
        assert name.startswith("krell_")
        assert family.documentation.endswith(".")
        assert family.type in ("gauge", "counter")
    values = {sample.name: sample.value for family in found.values() for sample in family.samples}
    assert values["krell_collection_entries"] == 2
    assert values["krell_collection_changes_total"] == 2
    assert values["krell_collection_writer_up"] == 1
    assert values["krell_collection_readers"] == 1
    assert values["krell_collection_faulty"] == 0
    assert values["krell_reader_lag_changes"] == 0
    (lag,) = found["krell_reader_lag_changes"].samples
    assert lag.labels == {"entity": PLANT, "collection": "reading", "command": "plant-reader",
                          "pid": str(reader.pid)}


def test_the_dashboard_asks_for_metrics_that_there_are(writer, reader):
    with open(DASHBOARD, encoding="utf-8") as file:
        dashboard = json.load(file)
    queries = [target["expr"] for panel in dashboard["panels"] for target in panel["targets"]]
    queries += [variable["query"] for variable in dashboard["templating"]["list"]]
    asked = set(re.findall(r"\bkrell_\w+", " ".join(queries)))
    samples = {sample.name: sample.labels for family in families().values()
               for sample in family.samples}
    assert asked == set(samples)  # each that there is, too
    for name, labels in samples.items():
        assert name == "krell_hidden_processes" or {"entity", "collection"} <= set(labels)
    for query in queries:
        assert all(query.count(a) == query.count(b) for a, b in ("()", "{}", "[]")), query


def test_nothing_is_changed_by_looking(writer, root):
    writer.kill()
    before = picture(root)
    for command in (["tree"], ["who", READING], ["dump", READING], ["doctor"], ["metrics"],
                    ["top", "--once", "--interval", "0.01"], ["tree", "--json"],
                    ["dump", READING, "--types", TYPES]):
        krell(*command)
    assert picture(root) == before


def test_the_writer_of_a_stopped_process_is_shown(writer):
    os.kill(writer.pid, signal.SIGSTOP)
    assert reading()["writer"]["pid"] == writer.pid
    assert krell("dump", READING)
    os.kill(writer.pid, signal.SIGCONT)


def test_mistakes_are_told_by_name(root, writer):
    assert f"no collection at or below {root}/nowhere" in krell("dump", "nowhere", status=2)
    assert "/nowhere.so" in krell("dump", READING, "--types", "/nowhere.so", status=2)
    done = subprocess.run([os.path.join(BIN, "krell"), "sing"], capture_output=True, text=True)
    assert done.returncode == 2 and "sing" in done.stderr
    for command in ("dump", "watch", "who"):
        done = subprocess.run([os.path.join(BIN, "krell"), command], capture_output=True, text=True)
        assert done.returncode == 2 and "path" in done.stderr


def test_paths_may_be_said_in_each_way(root, writer):
    for path in (READING, READING[1:], root + READING, READING + "/"):
        assert len(krell("dump", path).splitlines()) == 2


def test_an_empty_root_is_no_mistake(root):
    assert krell("tree") == ""
    assert json.loads(krell("tree", "--json")) == []
    assert "0 collections" in krell("doctor")
