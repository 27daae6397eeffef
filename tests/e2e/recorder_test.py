#!/usr/bin/env python3
"""From the module to dumps and history: key presses, requests of other programs, sticks that are pulled out, databases
that cannot be written, a module that is damaged or unloaded. A read takes a whole block (131072 bytes), so that a chain
of 1 MiB is full after some five seconds."""
import json
import shutil
import signal
import sqlite3
import subprocess

from set_env import (DUMP, ERRORS, HISTORY_KEY, PRINTED, STATE, STICK, TRAILER, WORKERS, Path, SetTest, comes_true, main, module,
                     mount, remote, run, text_of)

SHARE = Path('/opt/usr/home/owner/share')
KIB = 1024


def dumps(directory=STICK):
    return sorted(path for path in directory.iterdir() if path.name.startswith('0000000000_'))


def payload(dump):
    data = dump.read_bytes()
    assert data.endswith(TRAILER), dump
    return data[:-len(TRAILER)]


def newest_samples(recorded):
    """What the list holds of a chain's samples: the newest, as many as its limit allows."""
    Path('/tmp/chain').write_bytes(recorded)
    samples = [json.loads(line) for line in run(DUMP, 'json', '--processes', '/tmp/chain').stdout.splitlines()]
    charged, rows = 0, []
    for sample in reversed([sample for sample in samples if sample.get('listed')]):
        charged += 20 + len(str(sample['time_ns'])) + len(sample['name'][:14])
        if charged > 204800:
            break
        rows.append((sample['time_ns'], sample['pid'], sample['name'][:14], sample['rss_kib'], sample['swap_kib']))
    return rows


class RecorderTest(SetTest):
    def tearDown(self):
        for directory in SHARE, STICK:
            subprocess.run(['umount', '-l', directory], check=False, stderr=subprocess.DEVNULL)
        remote('module', 'load')

    def press_key(self, times):
        self.assertEqual(remote('key', 87).returncode, 0)
        self.logs('INFO:key handler 87 exited', times)

    def dump_chain(self, number):
        """A robustness dump of the whole chain."""
        self.assertEqual(remote('robust', '/tmp/fault', '/usr/bin/procd', number).returncode, 0)
        found = lambda: [dump for dump in dumps(Path('/tmp/fault')) if f'_{number}_procd_' in dump.name]
        self.becomes(found)
        return payload(found()[0])


class Recorder(RecorderTest):
    def test_module_gets_its_commands(self):
        self.start(level='debug')
        self.assertEqual(remote('temperature', 126).returncode, 0)
        self.becomes(lambda: (module()['temperature'], module()['tracing'], module()['disk_read'],
                              module()['disk_write']) == (126, True, True, True), module())
        self.assertEqual(remote('filter', '--timeout', 60, 'browser', 'launcher x').returncode, 0)
        self.becomes(lambda: module()['filter']['names'] == ['browser', 'launcher x'])
        self.assertEqual(module()['refused'], 0)
        self.becomes(lambda: 'c-0-4-126   ' in remote('module', 'status').stdout)
        self.logs('[vestra] : Temp msg {stemperature=126;du=')

    def test_stop_ends_all_threads_but_one_and_main_waits_for_that(self):
        self.start()
        self.has_recorded()
        self.daemon.send_signal(signal.SIGRTMIN + 6)
        self.becomes(lambda: not self.threads() & (WORKERS - {'QXProcess'}))
        self.logs('INFO: main loop exit')
        self.assertFalse(comes_true(lambda: not self.runs() or not module()['tracing'], 0.5))
        self.assertLessEqual({'QXProcess', 'vestrad'}, self.threads())
        self.assertIn('SIGRTMIN+6 handled\n', text_of(PRINTED))
        self.assertTrue(text_of(PRINTED).endswith('[Vestra]  INFO: main loop exit\n'))

    def test_fault_dump_is_copied_and_dod_dump_moved_to_the_stick(self):
        folder = STICK / 'issue_report_agent_DOD/Vestra'
        self.start('1', '2')  # two arguments: the reader's clock counts seconds
        self.has_recorded()
        fault = self.dump_chain(77)
        self.becomes(lambda: [dump.read_bytes() for dump in dumps()] == [fault + TRAILER])
        folder.mkdir(parents=True)
        self.assertEqual(remote('dod', 'on').returncode, 0)
        self.becomes(lambda: list(folder.iterdir()))
        self.assertEqual(remote('dod', 'off').returncode, 0)
        self.assertEqual(len(dumps()), 1)

    def test_key_dump_is_full_and_shown(self):
        self.start()
        self.press_key(1)
        self.assertGreater(len(payload(dumps()[0])), 7 << 17)  # full but for a part of a block
        self.assertLessEqual(len(payload(dumps()[0])), 1 << 20)
        notices = text_of(STATE / 'notifications.jsonl')
        self.assertEqual((notices.count('Successfully'), notices.count('\n')), (1, 1))

    def test_stick_that_is_pulled_out_costs_one_dump(self):
        mount('-t', 'tmpfs', 'stick', STICK)
        (STATE / 'module/inject').write_text('empty 1000000000\n')
        self.start()
        self.assertEqual(remote('key', 87).returncode, 0)
        self.logs('INFO: Waiting for buffer to fill..')
        (STATE / 'usb/0001-stick').unlink()
        subprocess.run(['umount', '-l', STICK], check=True)
        shutil.rmtree(STICK)
        (STATE / 'module/inject').unlink()  # only now it can fill
        self.logs('INFO:key handler 87 exited')
        self.assertTrue(list(Path('/tmp').glob('temp-vestra-user_*')))
        Path('/media/other').mkdir(exist_ok=True)
        self.plug('0002-other', '/media/other')
        STICK.mkdir()  # as an automounter leaves it behind: the cached directory stays good
        self.press_key(2)
        self.assertEqual(len(dumps()), 1)

    def check_history_needs(self, spoil, mend, message):
        mount('-t', 'tmpfs', '-o', 'size=64k', 'share', SHARE)
        self.start()
        self.has_recorded(4)
        spoil()
        failed = remote('history', '--timeout', 1)
        self.assertEqual(failed.returncode, 1)
        self.assertIn(f'the history was not written: key {HISTORY_KEY} is still 1 after 1 s', failed.stderr)
        self.logs(message)
        self.has_recorded()
        mend()
        filled = remote('history', '--timeout', 60, '--rows', 3)
        self.assertEqual(filled.returncode, 0)
        self.assertRegex(filled.stdout, '(?m)^[1-9][0-9]* rows in /opt/usr/')

    def test_history_needs_room(self):
        self.check_history_needs(lambda: None, lambda: mount('-o', 'remount,size=16m', SHARE),
                                 "Can't fill the table because there is no disk space left")

    def test_history_needs_a_file_system_that_can_be_written(self):
        self.check_history_needs(lambda: mount('-o', 'remount,ro,size=16m', SHARE),
                                 lambda: mount('-o', 'remount,rw,size=16m', SHARE),
                                 'SQL error: attempt to write a readonly database')

    def test_history_needs_a_database_that_nobody_locks(self):
        other = []

        def lock():
            mount('-o', 'remount,size=16m', SHARE)
            other.append(sqlite3.connect(SHARE / 'tvhistory.db', isolation_level=None))
            other[0].execute('BEGIN EXCLUSIVE')
        self.check_history_needs(lock, lambda: other[0].close(), 'SQL error: database is locked')

    def test_fills_and_dumps_under_full_input_lose_nothing(self):
        self.configure(max_file_size=10, min_time_diff_dump=2147483647)  # nothing falls off; dumps are not copied
        mount('-t', 'tmpfs', '-o', 'size=256k', 'stick', STICK)
        others = module()['bytes']
        self.start()
        self.has_recorded()
        dumped = []
        for number in range(100, 106):
            self.assertEqual(remote('vconf', 'set', HISTORY_KEY, 1).returncode, 0)
            dumped.append(self.dump_chain(number))
            self.becomes(lambda: remote('vconf', 'get', HISTORY_KEY).stdout == '0\n')
            self.has_recorded(1)
        self.assertEqual(remote('robust', STICK, 'procd', 5).returncode, 0)
        self.becomes(lambda: 'No space left on device' in text_of(ERRORS))
        left = list(Path('/tmp').glob('temp-vestra-ira_*'))
        self.assertEqual(len(left), 1, 'what the stick did not take stays')
        dumped.append(payload(left[0]))
        self.assertGreater(len(dumped[-1]), 256 * KIB)
        self.assertEqual(remote('module', 'unload').returncode, 0)
        self.logs('ERROR: read_data failed (19:No such device)')
        self.logs('ERROR: tud write failed (19:')
        self.becomes(lambda: self.threads() & WORKERS == WORKERS - {'QXReadData'}, 'only the reader ends without a node')

        chain = self.dump_chain(999)
        self.becomes(lambda: module()['bytes'] - others == len(chain))
        for dump in dumped:
            self.assertTrue(dump and chain.startswith(dump))
        history = json.loads(remote('history', '--timeout', 60, '--rows', 100000, '--json').stdout)
        rows = [tuple(row[name] for name in ('time_ns', 'pid', 'name', 'rss_kib', 'swap_kib')) for row in history['rows']]
        self.assertEqual(rows, newest_samples(chain))
        self.assertGreater(len(rows), 1000)


class RecorderOfHostileBlocks(RecorderTest):
    def test_keeps_going(self):
        self.start()
        self.becomes(lambda: module()['damaged_blocks'] > 5)
        self.press_key(1)
        self.assertTrue(payload(dumps()[0]))
        self.assertLessEqual(WORKERS, self.threads())


if __name__ == '__main__':
    main({'Recorder': '--node --block-size 131072',
          'RecorderOfHostileBlocks': '--node --profile hostile --block-size 131072'})
