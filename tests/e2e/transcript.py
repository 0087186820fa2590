#!/usr/bin/env python3
"""Plays the session of README's machine on a terminal: what is printed is what comes out.

scripts/e2e transcript starts it, at the top of the project, after preparing what the machine needs:
the time that it has is for the session alone. Ends with 0 if all was printed, 1 if something
differs, 2 if the session did not finish; the console then goes to standard error.
"""

import os
import pty
import re
import select
import shlex
import signal
import subprocess
import sys
import time

SECONDS = 200
PROMPT = "# "


def session():
    """The first command, then pairs of a command and what it prints."""
    with open("README.md", encoding="utf-8") as page:
        block = re.search(r"```console machine\n\$ (.*?)\n(.*?)```", page.read(), re.DOTALL)
    pairs = []
    for line in block[2].splitlines():
        if line.startswith(PROMPT):
            pairs.append((line[len(PROMPT):], []))
        else:
            pairs[-1][1].append(line)
    return block[1], pairs


def text_of(output):
    """Without a terminal's own sequences, such as the question where the cursor is."""
    return re.sub(r"\x1b\[[0-9;?]*[a-zA-Z]|\r", "", output)


class Unfinished(Exception):
    """The session did not come to its end."""


class Terminal:
    """A program on a terminal of its own."""

    def __init__(self, command):
        self._master, slave = pty.openpty()
        self._program = subprocess.Popen(shlex.split(command), stdin=slave, stdout=slave,
                                         stderr=slave, start_new_session=True)
        os.close(slave)
        self._end = time.monotonic() + SECONDS
        self._fresh = ""
        self.all = ""

    def type(self, line):
        os.write(self._master, (line + "\n").encode())

    def until_prompt(self):
        """What came since the last prompt, as lines; the line that was typed is echoed first."""
        while not text_of(self._fresh).endswith("\n" + PROMPT):
            if not self._more():
                raise Unfinished(f"ends with status {self._ended()} before a prompt")
        lines, self._fresh = text_of(self._fresh).splitlines(), ""
        return lines[1:-1]

    def status(self):
        while self._more():
            pass
        return self._ended()

    def _more(self):
        if not select.select([self._master], [], [], self._rest())[0]:
            self._give_up()
        try:
            data = os.read(self._master, 65536)
        except OSError:  # the other end was closed
            return False
        text = data.decode(errors="replace")
        self._fresh += text
        self.all += text
        return bool(data)

    def _ended(self):
        try:
            return self._program.wait(self._rest())
        except subprocess.TimeoutExpired:
            return self._give_up()

    def _rest(self):
        rest = self._end - time.monotonic()
        return rest if rest > 0 else self._give_up()

    def _give_up(self):
        os.killpg(self._program.pid, signal.SIGTERM)
        raise Unfinished(f"no end after {SECONDS} seconds")


def differences(terminal, pairs):
    """What a command prints instead of what README says, and how the machine ends."""
    found = []
    terminal.until_prompt()
    for command, wanted in pairs[:-1]:
        terminal.type(command)
        printed = terminal.until_prompt()
        if printed != wanted:
            found.append(f"{command}\nprints {printed}\ninstead of {wanted}")
    terminal.type(pairs[-1][0])
    status = terminal.status()
    if status != 0:
        found.append(f"the machine ends with status {status}")
    return found


def main():
    start, pairs = session()
    if len(pairs) < 5:
        sys.exit("transcript: README has no session of the machine")
    terminal = Terminal(start)
    status, faults = 1, []
    try:
        faults = differences(terminal, pairs)
    except Unfinished as fault:
        status, faults = 2, [f"DID NOT FINISH: {fault}"]
    if faults:
        print(text_of(terminal.all), *faults, sep="\n", file=sys.stderr)
        sys.exit(status)
    print(f"transcript: {len(pairs)} commands print what README says")


if __name__ == "__main__":
    main()
