"""What the tests of documents have in common: the blocks of a page, and terminals to run them in.

A fenced block says by its first line what it is:

    ```console            commands behind "$ ", and what they print. Run in order, in one shell for
                          the whole page, in a fresh directory with a KRELL_ROOT of its own.
    ```console NAME       the same in the terminal of that name ("first" is the one without). The
                          last command of such a block may go on running; a later block of the
                          terminal goes on with it.
    ```cpp FILE           (any language) a file of that name in that directory
    ```text               nothing that can be run

Of a console, "> " begins a line that is typed to the program that runs, "^C" is Ctrl-C, and "..."
stands for anything: for any lines, alone on a line. What only looks (cat, krell) is asked again
until it shows what the page shows, for processes take their time.
"""

import codecs
import os
import re
import signal
import subprocess
import threading
import time

PATIENCE = 60  # seconds
LOOKS = re.compile(r"(?!.*&$)(as \d+ \d+ |container )?(cat|tail|krell|ls|stat|plant-list)\b")
MARK = "\036"
# What krell says beside, to who is not root: pages show what root sees.
HIDDEN = re.compile(r"\d+ processes of other users were not looked at$")
SHELL = r"""trap : INT
while IFS= read -r -d '' -u %d command; do
    (exit ${status:-0})
    eval "$command" %d<&-
    status=$?
    printf '\036%%d\n' $status
done"""


class Block:
    def __init__(self, page, line, info, before):
        words = info.split()
        self.page, self.line, self.before = page, line, before
        self.language = words[0] if words else ""
        self.argument = words[1] if len(words) > 1 else ""
        self.lines = []
        self.used = False

    @property
    def text(self):
        return "".join(line + "\n" for line in self.lines)

    def __str__(self):
        return f"{self.page}:{self.line}"


def blocks_of(source, page):
    """The fenced blocks of a page, and the indented ones, whose language is "indented"."""
    with open(os.path.join(source, page), encoding="utf-8") as file:
        lines = file.read().split("\n")
    blocks, fence, paragraph, in_list, blank = [], None, "", False, True
    for number, line in enumerate(lines, 1):
        if fence is not None:
            if line.strip() == "```":
                fence = None
            else:
                fence.lines.append(line)
        elif line.lstrip().startswith("```"):
            fence = Block(page, number, line.lstrip()[3:], paragraph)
            blocks.append(fence)
            blank = False
        elif not line.strip():
            blank = True
        else:
            indented = line.startswith(("    ", "\t"))
            if indented and not in_list:
                if blank:
                    blocks.append(Block(page, number, "indented", paragraph))
                if blocks and blocks[-1].language == "indented":
                    blocks[-1].lines.append(line)
            elif not indented:
                in_list = bool(re.match(r"\s*([-*]|\d+\.) ", line)) or in_list and not blank
            paragraph = line if blank else paragraph + "\n" + line
            blank = False
    if fence is not None:
        raise AssertionError(f"{fence}: this block does not end")
    return blocks


def matches(wanted, got):
    """Whether the lines `got` are those `wanted`, in which "..." stands for anything."""
    pattern = ""
    for line in wanted:
        if line.strip() == "...":
            pattern += r"(.*\n)*?"
        else:
            pattern += ".*".join(re.escape(part) for part in line.split("...")) + r"\n"
    text = "".join(line + "\n" for line in got if not HIDDEN.match(line))
    return re.fullmatch(pattern, text) is not None


class Terminal:
    """A shell that takes commands, and what it and its programs print."""

    def __init__(self, directory, environment):
        commands, self.commands = os.pipe()
        self.process = subprocess.Popen(
            ["bash", "-c", SHELL % (commands, commands)], cwd=directory, env=environment,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            pass_fds=(commands,), start_new_session=True)
        os.close(commands)
        self.output = ""
        self.changed = threading.Condition()
        self.running = False  # a command
        self.status = 0       # of the last one that ended
        self.listener = threading.Thread(target=self._listen, daemon=True)
        self.listener.start()

    def _listen(self):
        decoder = codecs.getincrementaldecoder("utf-8")("replace")
        while piece := os.read(self.process.stdout.fileno(), 65536):
            with self.changed:
                self.output += decoder.decode(piece)
                end = re.search(MARK + r"(\d+)\n", self.output)
                if end:
                    self.output = self.output[:end.start()] + self.output[end.end():]
                    self.status, self.running = int(end.group(1)), False
                self.changed.notify_all()

    def command(self, text):
        self.running = True
        os.write(self.commands, text.encode() + b"\0")

    def type(self, line):
        self.process.stdin.write(line.encode() + b"\n")
        self.process.stdin.flush()

    def interrupt(self):
        os.killpg(self.process.pid, signal.SIGINT)

    def ended(self):
        """What there is when the command has ended; None when it does not end."""
        with self.changed:
            if not self.changed.wait_for(lambda: not self.running, PATIENCE):
                return None
            text, self.output = self.output, ""
        return text.splitlines()

    def until(self, wanted):
        """Waits for these lines of a command that may go on, and takes them; else what there is."""
        def come():
            return (not self.output or self.output.endswith("\n")) and \
                matches(wanted, self.output.splitlines())
        with self.changed:
            if not self.changed.wait_for(come, PATIENCE):
                return self.output.splitlines()
            self.output = ""
            return None

    def close(self):
        try:
            os.killpg(self.process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        os.close(self.commands)
        self.process.wait()
        self.process.stdin.close()
        self.listener.join()
        self.process.stdout.close()


class Step:
    """What is done in a console block, and the lines that follow it."""

    def __init__(self, kind, text, number):
        self.kind, self.text, self.number, self.wanted = kind, text, number, []


def steps_of(block):
    steps = [Step("", "", block.line)]
    for number, line in enumerate(block.lines, block.line + 1):
        last = steps[-1]
        if last.kind == "$" and last.text.endswith("\\") and not last.wanted:
            last.text = last.text[:-1] + line.strip()
        elif line == "^C":
            steps.append(Step("^C", "", number))
        elif line.startswith(("$ ", "> ")) or line == ">":
            steps.append(Step(line[0], line[2:], number))
        else:
            last.wanted.append(line)
    return [step for step in steps if step.kind or step.wanted]


class Console:
    """Runs the blocks of one page. `said` are commands that the page says but this does not run."""

    def __init__(self, directory, environment, said=()):
        self.directory, self.environment, self.said = directory, environment, said
        self.terminals = {}

    def close(self):
        for terminal in self.terminals.values():
            terminal.close()

    def _fail(self, block, step, got):
        got = "(it did not end)" if got is None else "\n".join(got)
        raise AssertionError(f"{block.page}:{step.number}: {step.kind} {step.text}\nwanted:\n" +
                             "\n".join(step.wanted) + "\ngot:\n" + got)

    def _ended(self, block, step, terminal):
        got = terminal.ended()
        deadline = time.monotonic() + PATIENCE
        look = step.kind == "$" and LOOKS.match(step.text)
        while got is not None and not matches(step.wanted, got) and look and \
                time.monotonic() < deadline:
            time.sleep(0.05)
            terminal.command(step.text)
            got = terminal.ended()
        if got is None or not matches(step.wanted, got):
            self._fail(block, step, got)
        if terminal.status != 0 and step.kind == "$" and not step.wanted:
            self._fail(block, step, [f"status {terminal.status}"])

    def _step(self, block, step, following, terminal):
        if step.kind == "$":
            if terminal.running:
                self._ended(block, Step("", "(what ran before)", step.number), terminal)
            terminal.command(step.text)
        elif step.kind == ">":
            terminal.type(step.text)
        elif step.kind == "^C":
            terminal.interrupt()
        may_run = following.kind != "$" if following else bool(block.argument)
        if step.kind == "$" and step.text.endswith("&"):
            may_run = True
        if not may_run or step.kind == "^C":
            self._ended(block, step, terminal)
        else:
            got = terminal.until(step.wanted)
            if got is not None:
                self._fail(block, step, got)

    def _terminal(self, name):
        name = "" if name == "first" else name
        if name not in self.terminals:
            self.terminals[name] = Terminal(self.directory, self.environment)
        return self.terminals[name]

    def run(self, block):
        block.used = True
        terminal = self._terminal(block.argument)
        steps = [step for step in steps_of(block) if step.text not in self.said]
        for step, following in zip(steps, steps[1:] + [None]):
            self._step(block, step, following, terminal)

    def finish(self):
        """What ended meanwhile must not have said more than the page."""
        for name, terminal in self.terminals.items():
            with terminal.changed:
                text = terminal.output
            if text.strip():
                raise AssertionError(f"terminal '{name}' goes on with:\n{text}")

    def file(self, block):
        """Makes a file of it where the first terminal is; the text before must name it."""
        block.used = True
        if f"`{block.argument}`" not in block.before:
            raise AssertionError(f"{block}: the text before does not name {block.argument}")
        here = os.readlink(f"/proc/{self._terminal('').process.pid}/cwd")
        where = os.path.join(here, block.argument)
        with open(where, "w", encoding="utf-8") as file:
            file.write(block.text)
