"""A program on a terminal, as a person uses it: tmux keeps the screen."""
import re
import shlex
import subprocess
import tempfile
import time
from pathlib import Path

PATIENCE = 30  # seconds; the machine may be busy


class Terminal:
    def __init__(self, *words, columns=80, rows=24, term='xterm', locale='C.UTF-8', stdin=None):
        """Runs the words in a terminal. Afterwards the screen has the exit code, and whether the terminal is as it was."""
        self.directory = tempfile.TemporaryDirectory()
        self.socket = Path(self.directory.name) / 'tmux'
        command = shlex.join(map(str, words)) + (f' <{stdin}' if stdin and ' ' not in stdin else '')
        if stdin and ' ' in stdin:
            command = f'{stdin} | {command}'
        # Ctrl-C is for the program, and not for the shell around it, which may end with it.
        script = (f'trap : INT; export TERM={term} LC_ALL={locale}; before=$(stty -g); {command}; code=$?; '
                  'test "$before" = "$(stty -g)" && echo "ended $code, terminal as before"; sleep 600')
        self.tmux('-u', '-f', '/dev/null', 'new-session', '-d', '-x', columns, '-y', rows, script)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.tmux('kill-server')
        self.directory.cleanup()

    def tmux(self, *words):
        return subprocess.run(['tmux', '-S', self.socket, *map(str, words)], capture_output=True, check=True, text=True,
                              env={'PATH': '/usr/bin:/bin', 'LC_ALL': 'C.UTF-8', 'TERM': 'xterm', 'HOME': '/tmp'}).stdout

    def press(self, *keys):
        """Types keys; those of several letters are tmux's names, such as Enter."""
        self.tmux('send-keys', *keys)

    def type(self, text):
        self.tmux('send-keys', '-l', '--', text)

    def settled(self, options):
        """What tmux has once that no longer changes: in the middle of drawing it has lines of two screens, on a busy machine for long."""
        before, same, end = None, 0, time.monotonic() + PATIENCE
        while same < 3 and time.monotonic() < end:
            now = self.tmux('capture-pane', options)
            same = same + 1 if now == before else 0
            before = now
            time.sleep(0.07)
        return before

    def screen(self):
        return self.settled('-p')

    def line(self, row):
        return self.screen().split('\n')[row]

    def styled(self):
        """The screen with the escape sequences of its colours and attributes."""
        return self.settled('-pe')

    def becomes(self, condition, wanted):
        """Waits until a condition of the screen is true, and returns what it gives."""
        end = time.monotonic() + PATIENCE
        while not (found := condition(screen := self.tmux('capture-pane', '-p'))):
            assert time.monotonic() < end, f'no {wanted!r} in\n{screen}'
            time.sleep(0.02)
        return found

    def shows(self, pattern):
        """Waits until the screen matches, and returns the match."""
        return self.becomes(lambda screen: re.search(pattern, screen, re.MULTILINE), pattern)

    def resize(self, columns, rows):
        self.tmux('resize-window', '-x', columns, '-y', rows)

    def pid_of(self, name):
        """The process that runs in the terminal."""
        shell = self.tmux('display-message', '-p', '#{pane_pid}').strip()
        found = subprocess.run(['pgrep', '-P', shell, name], capture_output=True, check=True, text=True).stdout
        return min(map(int, found.split()))  # a set lists its threads, too
