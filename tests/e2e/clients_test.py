#!/usr/bin/env python3
"""Clients and the daemon, each a process: what they are answered, and what the next one is answered after a client was
killed or wrote where it should not. The last one compares the figures with this machine's."""
import contextlib
import fcntl
import grp
import json
import os
import random
import re
import signal
import struct
import subprocess
import sys
import threading
import time
import unittest
from pathlib import Path

from set_env import (LOG, NO_DAEMON, OK, ROOT, STAT, TIMEOUT, UNANSWERED, WORKERS, Segment, SetTest, ask, main, remote,
                     run, text_of)


def client(*arguments):
    """One that waits for a minute, if it has to."""
    return subprocess.Popen([STAT, '--json', '--timeout', '60', *arguments], stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL)


def end(process):
    with process:
        process.kill()


class Clients(SetTest):
    def setUp(self):
        super().setUp()
        self.start()
        self.fill_ring(6)
        self.known = ask()
        self.assertEqual(self.known[0], OK)
        self.addCleanup(lambda: self.assertTrue(self.runs()))

    def check_service(self, after):
        self.assertEqual(ask(), self.known, after)

    def test_several_at_once_are_answered_as_one_alone(self):
        vitals = [str(vital) for vital in reversed(range(17))]
        question = lambda window: json.loads(run(STAT, '--json', '--window', window, *vitals).stdout)['vitals']
        alone = {window: question(window) for window in (0, 1, 2, 3, 180)}
        self.assertEqual(len(alone[180]), 17)
        wrong = []

        def ask_often(windows):
            wrong.extend(window for window in windows if question(window) != alone[window])
        threads = [threading.Thread(target=ask_often, args=(random.Random(i).choices(list(alone), k=25),)) for i in range(4)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual(wrong, [])

    def test_client_that_is_killed_while_it_is_served_holds_nobody_up(self):
        self.pause()
        victim = client('3')
        self.becomes(Segment().posted)
        Segment().write(Segment.STATE, struct.pack('<i', 3))  # the daemon waits four seconds for it to change back
        self.resume()
        waits_for_its_turn = client('4')
        begin = time.monotonic()
        self.assertEqual(ask(timeout=0.2)[0], TIMEOUT)
        self.assertLess(time.monotonic() - begin, 3.5)
        end(waits_for_its_turn)
        end(victim)
        self.check_service('the death')

    def test_deaths_at_any_moment_hold_nobody_up(self):
        for moment in range(60):
            victim = client('--watch', '0.001', '5')
            victim.stdout.readline()  # it asks
            time.sleep(moment / 20000)
            end(victim)
            self.check_service('a death')

    def test_gone_daemon_and_slow_daemon_are_told_apart(self):
        self.pause()
        self.assertEqual(ask(timeout=0.2)[0], TIMEOUT)
        in_its_turn, in_line = client('0'), client('0')
        time.sleep(0.1)
        begin = time.monotonic()
        self.end()
        self.assertEqual((in_its_turn.wait(), in_line.wait(), ask()[0]), (NO_DAEMON,) * 3)
        self.assertLess(time.monotonic() - begin, 5)
        self.start()
        self.assertEqual(ask()[0], OK)

    def test_overwritten_segment_is_mended(self):
        size = Segment.PATH.stat().st_size
        for name, offset, data in (
                ('marker: not ready', 0, bytes(4)), ('marker: no marker', 0, struct.pack('<i', -7)),
                ('record: zeros', 0, bytes(Segment.RECORD)), ('record: ones', 0, b'\xff' * Segment.RECORD),
                ('all: zeros', 0, bytes(size)), ('all: ones', 0, b'\xff' * size),
                ('after the record: ones', Segment.RECORD, b'\xff' * (size - Segment.RECORD))):
            Segment().write(offset, data)
            self.check_service(name)


OTHER_USER, GROUP = 65534, 'games'
FILES = SEGMENT, LOCK_FILE = '/dev/shm/vestra_api', '/dev/shm/vestra_api.daemon'


def other_user(work):
    """The id of a process of another member of the group. It has done `work`, and goes on with it if `work` yields."""
    begun, begins = os.pipe()
    child = os.fork()
    if child == 0:
        try:
            os.setgroups([])
            os.setgid(grp.getgrnam(GROUP).gr_gid)
            os.setuid(OTHER_USER)
            goes_on = work()
            os.write(begins, b'1')
            for _ in goes_on or ():
                pass
        finally:
            os._exit(1)
    os.close(begins)
    assert os.read(begun, 1), 'the other user has failed'
    os.close(begun)
    return child


def end_other(child):
    os.kill(child, signal.SIGKILL)
    os.waitpid(child, 0)


def write_and_truncate(seed):
    """Overwrites and truncates the segment all the time."""
    chance = random.Random(seed)
    while True:
        yield
        fd = os.open(SEGMENT, os.O_RDWR)
        for _ in range(chance.choice((1, 100, 10000))):
            value = chance.choice((0, 1, 2, 17, 0x7fffffff, 0x80000000, 0xffffffff, 0xfffffffe, chance.getrandbits(32)))
            os.pwrite(fd, struct.pack('<I', value), 4 * chance.randrange(os.fstat(fd).st_size // 4))
        size = os.fstat(fd).st_size
        os.ftruncate(fd, chance.choice((0, 1, size)))
        os.ftruncate(fd, chance.choice((0, size)))
        os.close(fd)


def plant_all_the_time():
    plants = os.mkdir, os.rmdir, os.unlink, os.mkfifo, lambda path: os.symlink('/', path)
    while True:
        yield
        try:
            random.choice(plants)(random.choice(FILES))
        except OSError:
            pass


@unittest.skipIf(int(Path('/proc/self/uid_map').read_text().split()[2]) <= OTHER_USER, 'no other users here')
class OtherUsers(SetTest):
    def setUp(self):
        super().setUp()
        os.environ['VESTRA_API_GROUP'] = GROUP
        self.remove_files()

    def remove_files(self):
        subprocess.run(['rm', '-rf', *Path('/dev/shm').glob('*')], check=True)

    def other_user(self, work):
        child = other_user(work)
        self.addCleanup(end_other, child)

    def check_start(self, message=None):
        self.start()
        self.assertEqual(ask()[0], OK, message)
        self.end()

    def test_whatever_they_plant_the_daemon_starts(self):
        for name, plant in (('directory', os.mkdir), ('full directory', lambda path: os.makedirs(path + '/below')),
                            ('file', lambda path: Path(path).write_bytes(bytes(928))), ('pipe', os.mkfifo),
                            ('link', lambda path: os.symlink('/etc/passwd', path)),
                            ('endless link', lambda path: os.symlink(path, path))):
            self.remove_files()
            end_other(other_user(lambda plant=plant: [plant(path) for path in FILES] and None))
            self.check_start(name)
            self.assertEqual(text_of(LOG).count('found an obstacle'), 1, 'logged once')
        self.assertIn('root:', Path('/etc/passwd').read_text())

    def test_however_fast_they_plant_the_daemon_starts(self):
        self.other_user(plant_all_the_time)
        for _ in range(8):
            self.check_start()
            self.remove_files()

    def test_lock_that_a_client_holds_keeps_no_daemon_from_starting(self):
        def hold():
            for path, mode, kind in (SEGMENT, os.O_RDWR, fcntl.F_WRLCK), (LOCK_FILE, os.O_RDONLY, fcntl.F_RDLCK):
                fcntl.fcntl(os.open(path, mode), 38, struct.pack('hhqqi4x', kind, 0, 0, 0, 0))  # F_OFD_SETLKW
            return iter(lambda: time.sleep(1), 1)
        self.check_start()
        self.other_user(hold)
        self.assertEqual(ask()[0], NO_DAEMON)
        self.check_start()

    def test_capabilities_of_the_unit_are_enough(self):
        unit = (ROOT / 'packaging/vestrad.service').read_text()
        capabilities = re.search('(?m)^CapabilityBoundingSet=(.*)', unit)[1].lower().replace('cap_', '+').split()
        lists = Path('/tmp/vestra_processes')
        end_other(other_user(lambda: [lists.mkdir(), os.mkdir(SEGMENT)] and None))
        self.start(runner=('setpriv', '--bounding-set=' + ','.join(['-all', *capabilities])))
        self.becomes(lambda: lists.stat().st_uid == 0)
        self.assertEqual((Path(SEGMENT).group(), Path(SEGMENT).stat().st_mode & 0o777), (GROUP, 0o660))

    def test_daemon_that_hangs_after_a_stop_is_none_and_keeps_no_other_from_starting(self):
        self.start()
        self.assertEqual(ask()[0], OK)  # the service has begun; one that ends before it does keeps the lock
        hangs = self.daemon
        self.addCleanup(lambda: end(hangs))
        hangs.send_signal(signal.SIGRTMIN + 6)
        self.becomes(lambda: not self.threads() & (WORKERS - {'QXProcess'}))
        self.assertEqual(ask()[0], NO_DAEMON)
        self.check_start()
        self.assertIsNone(hangs.poll())

    def test_client_that_writes_and_truncates_all_the_time_harms_nobody_for_long(self):
        self.start()
        self.fill_ring(6)
        known, results = ask(), set()
        for seed in range(4):
            hostile = other_user(lambda seed=seed: write_and_truncate(seed))
            results |= {ask(vital, 60, 0.3)[0] for vital in range(8)}
            end_other(hostile)
            self.assertEqual(ask(), known)
        self.assertTrue(self.runs())
        self.assertLessEqual(results, {OK, NO_DAEMON, TIMEOUT, UNANSWERED}, 'no client dies')


def figure(path, word):
    """The number after a word in a file of the kernel's."""
    return float(re.search(rf'^{word}\s+(\d+)', Path(path).read_text(), re.M)[1])


def busy_seconds(path, first, fields):
    """CPU time in a file of the kernel's: the sum of some of its fields."""
    times = Path(path).read_text().rpartition(')')[2].split()[first:]
    return sum(int(times[field]) for field in fields) / os.sysconf('SC_CLK_TCK')


class HostFigures(SetTest):
    def test_agree_with_the_machine(self):
        """From the kernel's counters through the sampler, the node, the daemon's ring and list, to a client and the
        database."""
        name = f'busy-{random.SystemRandom().randrange(1000000)}'
        busy = subprocess.Popen([sys.executable, '-c', f'open("/proc/self/comm", "w").write("{name}"); '
                                 'memory = b"x" * (64 << 20)\nwhile True: pass'])
        self.addCleanup(lambda: end(busy))
        self.start()
        self.becomes(lambda: (ask(2)[1] or {}).get('maximum', 0) > 0)
        time.sleep(1.5)  # the first step of a run is not to scale
        # A machine that does other things in jumps may spoil a stretch of time. A wrong scale spoils all three.
        for spoilt in (AssertionError, AssertionError, ()):
            with contextlib.suppress(spoilt):
                return self.check_stretch(name, busy, 10)

    def check_stretch(self, name, busy, seconds):
        counters = lambda: (time.monotonic(), busy_seconds('/proc/stat', 1, (0, 1, 2, 5, 6)),
                            busy_seconds(f'/proc/{busy.pid}/stat', 0, (11, 12)), figure('/proc/stat', 'ctxt'))
        before = counters()
        time.sleep(seconds)
        passed, machine, share, switches = (now - then for now, then in zip(counters(), before))
        cpu, shown_switches = ask(2, seconds)[1]['average'], ask(0, seconds)[1]['average']
        self.assertAlmostEqual(cpu, 100 * machine / passed / os.cpu_count(), delta=15, msg='percent of all CPUs')
        self.assertGreater(cpu, 20, 'one of them is busy')
        self.assertAlmostEqual(shown_switches * passed / switches, 1, delta=0.25)
        self.assertAlmostEqual(ask(16)[1]['maximum'], figure('/proc/meminfo', 'MemAvailable:'),
                               delta=0.05 * figure('/proc/meminfo', 'MemTotal:'))
        rows = json.loads(remote('history', '--timeout', 60, '--rows', 100000, '--json').stdout)['rows']
        rows = [row for row in rows if row['name'] == name]
        self.assertAlmostEqual(sum(row['cpu_percent'] for row in rows) / len(rows), 25 * share / passed, delta=6)
        self.assertAlmostEqual(max(row['rss_kib'] for row in rows), figure(f'/proc/{busy.pid}/status', 'VmRSS:'),
                               delta=8192)


if __name__ == '__main__':
    main({'Clients': '--node --source synthetic', 'OtherUsers': '--node --source synthetic',
          'HostFigures': '--node --source host --rate 5'})
