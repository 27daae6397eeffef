"""The daemon as a process in a simulated set, and what people and other programs do to it.

A test script runs each class in a set with the options that it gives for the class:
  tests/e2e/recorder_test.py [CLASS[.TEST]...]        the programs are those of VESTRA_BUILD, build/release by default
"""
import json
import os
import re
import signal
import struct
import subprocess
import sys
import time
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get('VESTRA_BUILD', ROOT / 'build/release')).resolve()
SET, VESTRAD = BUILD / 'set/vestra-set', BUILD / 'vestra-daemon/vestrad'
STAT, DUMP = BUILD / 'tools/vestra-stat', BUILD / 'tools/vestra-dump'
STATE = Path('/run/vestra-set')
CONFIG = Path('/opt/data/vestraDir/orna_vestra_config.xml')
LOG, PRINTED, ERRORS = Path('/tmp/vestrad.log'), Path('/tmp/vestrad.out'), Path('/tmp/vestrad.err')
STICK = Path('/media/stick')
TRAILER = b'1234.5/QX-55\n\x0d'  # of the version file below
HISTORY_KEY = 'memory/SHM/trigger_db_write'
WORKERS = {'QXReadData', 'QXClientProcess', 'QXUserDataHndl', 'QXProcess'}
OK, NO_DAEMON, TIMEOUT, UNANSWERED, USAGE = 0, 4, 5, 6, 64  # exit codes of vestra-stat


def run(*words, **more):
    """A program that has ended, with its output."""
    return subprocess.run([str(word) for word in words], capture_output=True, text=True, check=False, **more)


def remote(*words):
    return run(SET, *words)


def mount(*words):
    subprocess.run(['mount', *words], check=True)


def text_of(path):
    return Path(path).read_text('latin1') if Path(path).exists() else ''


def comes_true(condition, seconds=60):
    """Looks every 10 ms."""
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            return False
        time.sleep(0.01)
    return True


def module():
    """What the module says about itself."""
    return json.loads(Path('/tv/node/status').read_text())


def ask(vital=0, window=0, timeout=15.0):
    """One question by a new client: the exit code and the vital's answer."""
    asked = run(STAT, '--json', '--window', window, '--timeout', timeout, vital)
    return asked.returncode, list(json.loads(asked.stdout)['vitals'].values())[0] if asked.returncode == OK else None


class Segment:
    """The shared memory, to a client that writes everywhere."""
    PATH = Path('/dev/shm/vestra_api')
    RECORD, STATE, REQUESTS = 912, 88, 96  # size of the record, and places in it
    POSTED = 1

    def write(self, offset, data):
        with open(self.PATH, 'r+b', buffering=0) as segment:
            os.pwrite(segment.fileno(), data, offset)

    def posted(self):
        return struct.unpack_from('<i', self.PATH.read_bytes(), self.STATE) == (self.POSTED,)


class SetTest(unittest.TestCase):
    """A test of a daemon that it starts itself, in a set that looks as it did at the start."""
    longMessage = True
    daemon = None

    def setUp(self):
        leftovers = [LOG, PRINTED, ERRORS, STATE / 'notifications.jsonl', STATE / 'module/inject',
                     *Path('/tmp').glob('temp-vestra*'), *(STATE / 'usb').iterdir(), *(STATE / 'keys').iterdir()]
        for path in leftovers:
            path.unlink(missing_ok=True)
        for directory in STICK, Path('/tmp/fault'), Path('/tmp/vestra_processes'):
            subprocess.run(['rm', '-rf', directory], check=True)
        for directory in STICK, Path('/tmp/fault'):
            directory.mkdir(parents=True)
        Path('/etc/prd_info.ini').write_bytes(b'Model=QX-55\nBuild=1234.5\r\n')
        self.configure(max_file_size=1)
        self.plug('0001-stick', STICK)  # without a stick the daemon looks for one for three seconds
        self.addCleanup(self.end)

    @staticmethod
    def plug(name, mount_path):
        (STATE / 'usb' / name).write_text(f'[device]\nclass=8\nmount={mount_path}\n')

    @staticmethod
    def configure(**settings):
        text = CONFIG.read_text()
        for name, value in settings.items():
            text = re.sub(f'<{name}>.*</', f'<{name}>{value}</', text)
        CONFIG.write_text(text)

    def start(self, *arguments, level='info', runner=()):
        """Starts the daemon, by the program `runner` if there is one, and waits until all its threads are there."""
        LOG.unlink(missing_ok=True)
        with open(PRINTED, 'wb') as printed, open(ERRORS, 'ab') as errors:
            self.daemon = subprocess.Popen([*runner, VESTRAD, *arguments], stdout=printed, stderr=errors, stdin=subprocess.DEVNULL,
                                           env={**os.environ, 'VESTRA_DLOG_FILE': str(LOG), 'VESTRA_DLOG_LEVEL': level})
        self.logs('INFO: waiting for threads to join...')
        self.assertLessEqual(WORKERS, self.threads())

    def end(self):
        if self.daemon:
            self.daemon.kill()
            self.daemon.wait()

    def runs(self):
        return self.daemon.poll() is None

    def pause(self):
        self.daemon.send_signal(signal.SIGSTOP)
        os.waitpid(self.daemon.pid, os.WUNTRACED)

    def resume(self):
        self.daemon.send_signal(signal.SIGCONT)

    def threads(self):
        return {task.read_text().strip() for task in Path(f'/proc/{self.daemon.pid}/task').glob('*/comm')}

    def becomes(self, condition, message=None):
        self.assertTrue(comes_true(condition), message or LOG.read_text('latin1')[-3000:])

    def logs(self, text, times=1):
        self.becomes(lambda: text_of(LOG).count(text) >= times)

    def has_recorded(self, blocks=2):
        """Waits until the daemon has taken some more blocks."""
        before = module()['blocks']
        self.becomes(lambda: module()['blocks'] >= before + blocks)

    def fill_ring(self, blocks):
        """Lets the daemon have that many blocks more, then none, and waits until it has decoded the last."""
        self.has_recorded(blocks)
        (STATE / 'module/inject').write_text('empty 1000000000\n')
        before = module()['reads'].get('empty', 0)
        self.becomes(lambda: module()['reads'].get('empty', 0) >= before + 2)


def main(sets):
    """Runs the tests that are named, or all, each class in a set with the options that `sets` has for it."""
    if 'VESTRA_SET_INSIDE' in os.environ:
        unittest.main(module='__main__', argv=sys.argv, verbosity=2)
    names = sys.argv[1:] or list(sets)
    paths = [path for path in (ROOT, BUILD) if path == ROOT or ROOT not in path.parents]
    binds = [word for path in paths for word in ('--bind', path)]
    sys.exit(max(subprocess.call([SET, 'sandbox', *binds, *sets[name.split('.')[0]].split(), '--',
                                  sys.executable, '-B', sys.argv[0], name]) for name in names))
