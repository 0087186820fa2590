#!/usr/bin/env python3
"""Plays the session of README's machine on a terminal: what is printed is what comes out.

usage: tests/e2e/transcript.py, at the top of the project; the console goes to standard error when
something differs.
"""

import os
import pty
import re
import select
import shlex
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
                raise EOFError("no prompt")
        lines, self._fresh = text_of(self._fresh).splitlines(), ""
        return lines[1:-1]

    def status(self):
        while self._more():
            pass
        return self._program.wait()

    def _more(self):
        if not select.select([self._master], [], [], self._end - time.monotonic())[0]:
            self._program.terminate()
            raise TimeoutError(f"not finished after {SECONDS} seconds")
        try:
            data = os.read(self._master, 65536)
        except OSError:  # the other end was closed
            return False
        text = data.decode(errors="replace")
        self._fresh += text
        self.all += text
        return bool(data)


def main():
    start, pairs = session()
    if len(pairs) < 5:
        sys.exit("transcript: README has no session of the machine")
    terminal = Terminal(start)
    faults = []
    try:
        terminal.until_prompt()
        for command, wanted in pairs[:-1]:
            terminal.type(command)
            printed = terminal.until_prompt()
            if printed != wanted:
                faults.append(f"{command}\nprints {printed}\ninstead of {wanted}")
        terminal.type(pairs[-1][0])
        status = terminal.status()
        if status != 0:
            faults.append(f"the machine ends with status {status}")
    except (EOFError, TimeoutError) as fault:
        faults.append(str(fault))
    if faults:
        print(text_of(terminal.all), *faults, sep="\n", file=sys.stderr)
        sys.exit(1)
    print(f"transcript: {len(pairs)} commands print what README says")


if __name__ == "__main__":
    main()
