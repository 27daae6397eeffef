#!/usr/bin/env python3
"""Clients and the daemon, each a process: what they are answered, and what the next one is answered after a client was
killed or wrote where it should not. The last one compares the figures with this machine's."""
import json
import os
import random
import re
import struct
import subprocess
import sys
import threading
import time
from pathlib import Path

from set_env import NO_DAEMON, OK, STAT, TIMEOUT, Segment, SetTest, ask, main, remote, run


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
        self.assertLess(time.monotonic() - begin, 2)
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

    def test_client_that_overwrites_everything_all_the_time_harms_nobody_for_long(self):
        segment, chance, stop = Segment(), random.Random(2), threading.Event()

        def lie():
            while not stop.is_set():
                value = chance.choice((0, 17, 0x7fffffff, 0x80000000, 0xffffffff, 0xfffffffe, chance.getrandbits(32)))
                segment.write(4 * chance.randrange(Segment.RECORD // 4), struct.pack('<I', value))
        liar = threading.Thread(target=lie)
        liar.start()
        for vital in range(10):
            ask(vital, 60, 0.3)
        stop.set()
        liar.join()
        self.check_service('the lies')


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
        name, seconds = f'busy-{random.SystemRandom().randrange(1000000)}', 10
        busy = subprocess.Popen([sys.executable, '-c', f'open("/proc/self/comm", "w").write("{name}"); '
                                 'memory = b"x" * (64 << 20)\nwhile True: pass'])
        self.addCleanup(lambda: end(busy))
        counters = lambda: (time.monotonic(), busy_seconds('/proc/stat', 1, (0, 1, 2, 5, 6)),
                            busy_seconds(f'/proc/{busy.pid}/stat', 0, (11, 12)), figure('/proc/stat', 'ctxt'))
        self.start()
        self.becomes(lambda: (ask(2)[1] or {}).get('maximum', 0) > 0)
        time.sleep(1.5)  # the first step of a run is not to scale
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
    main({'Clients': '--node --source synthetic', 'HostFigures': '--node --source host --rate 5'})
