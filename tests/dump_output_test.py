#!/usr/bin/env python3
"""Output of the dump tool: tables in CSV, JSON and SQLite, smaller dumps, wall-clock times, traces, exit codes."""
import csv
import json
import os
import sqlite3
import subprocess
import tempfile
import unittest
from pathlib import Path

BUILD = Path(os.environ.get('VESTRA_BUILD', Path(__file__).resolve().parents[1] / 'build/release'))
TRAILER = b'T-RX-1107.2/eu/24_TVX\r\n\x17'
NAMED = '0000000000_7_one_1795560058'  # its name has the time of its end


def dump_tool(*words, **more):
    return subprocess.run([BUILD / 'tools/vestra-dump', *map(str, words)], capture_output=True, check=False, **more)


def output(*words):
    return dump_tool(*words).stdout.decode()  # raises unless it is UTF-8


def write(name, *parts):
    path = Path(name)
    path.write_bytes(b''.join(parts))
    return path


def made(*words):
    """What the tests' dump writer writes: `hostile`, or PROFILE PROCESSES BLOCK-SIZE BLOCKS SEED of the synthetic source."""
    return subprocess.run([BUILD / 'tests/write_dump', *map(str, words)], stdout=subprocess.PIPE, check=True).stdout


def csv_rows(*words):
    rows = list(csv.reader(output('csv', *words).strip().split('\n'), strict=True))
    assert {len(row) for row in rows} == {len(rows[0])}
    return rows


def json_rows(table, *words):
    rows = [json.loads(line) for line in output('json', *words).strip().split('\n')]
    return [row for row in rows if row['table'] == table]


def query(database, statement):
    connection = sqlite3.connect(database)
    with connection:
        rows = connection.execute(statement).fetchall()
    connection.close()
    return rows


class DumpTest(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        os.chdir(directory.name)


class DumpOutput(DumpTest):
    def test_every_table_has_hostile_names_in_a_harmless_form(self):
        names = {b'a,b': 'a,b', b'say "hi"': 'say "hi"', b' blank ': ' blank ', b'back\\slash': r'back\\slash',
                 b'line\nfeed\r': r'line\x0afeed\x0d', b'\x1b[2J\x7f': r'\x1b[2J\x7f', b'\xc3\xbc\xff\xfe': '\xfc\\xff\\xfe',
                 b'\xed\xa0\x80\xc0\xaf': r'\xed\xa0\x80\xc0\xaf', b"';DROP TABLE dumps;--": "';DROP TABLE dumps;--",
                 b'\xf4\x90\x80\x80\xc2\x85\xe2\x82': r'\xf4\x90\x80\x80\xc2\x85\xe2\x82'}
        frames = [b'\x07\x02\x01' + bytes([1 + second, 0, 7, len(name)]) + name + bytes(8 + 20)
                  for second, name in enumerate(names)]
        write('dump', *(len(frame).to_bytes(4, 'little') + frame for frame in frames), TRAILER)
        expected = list(names.values())
        self.assertEqual([row[3] for row in csv_rows('--processes', 'dump')][1:], expected)
        self.assertEqual([row['name'] for row in json_rows('processes', '--processes', 'dump')], expected)
        self.assertEqual(dump_tool('sqlite', 'db', 'dump').returncode, 0)
        self.assertEqual([row[0] for row in query('db', 'SELECT name FROM processes ORDER BY time_ns')], expected)
        self.assertRegex(output('info', 'dump'), r'\A[^\x00-\x09\x0b-\x1f]*\Z')

    def test_database_holds_the_same_rows_of_many_dumps(self):
        write(NAMED, made('hostile', 30, 9000, 40, 1), TRAILER)
        write('two', made('steady', 30, 9000, 40, 2))
        self.assertEqual(dump_tool('sqlite', '--epoch', 1795560058, 'db', 'two', NAMED).returncode, 1)
        self.assertEqual(dump_tool('sqlite', '--epoch', 1795560058, 'db', NAMED).returncode, 1)  # again: replaces the first
        self.assertEqual(query('db', 'SELECT file, build, trailer FROM dumps ORDER BY dump_id'),
                         [(str(Path('two').resolve()), None, 0), (str(Path(NAMED).resolve()), 'T-RX-1107.2/eu', 1)])
        for table in 'vitals', 'processes', 'frames', 'damage':
            self.assertEqual(query('db', f'SELECT count(*) FROM {table} WHERE dump_id = 2'),
                             [(len(csv_rows('--' + table, NAMED)) - 1,)])
        info = json.loads(output('info', '--json', NAMED))
        counts = 'damaged_spans', 'damaged_bytes', 'messages'
        self.assertEqual(query('db', f'SELECT {", ".join(counts)} FROM dumps WHERE dump_id = 2'),
                         [tuple(info[count] for count in counts)])
        for top in 'top_cpu', 'top_memory':
            self.assertEqual(query('db', f'SELECT pid FROM {top} WHERE dump_id = 2 LIMIT 1'), [(info[top][0]['pid'],)])
        self.assertEqual(query('db', 'SELECT max(wall_time) FROM seconds WHERE dump_id = 2'), [('2026-11-24T22:40:57Z',)])

    def test_database_of_another_program_is_refused(self):
        write('dump', made('steady', 9, 2000, 3, 5))
        query('other', 'CREATE TABLE dumps(x)')
        self.assertEqual(dump_tool('sqlite', 'other', 'dump').returncode, 2)

    def test_cut_is_a_whole_dump_of_its_range(self):
        whole, trailer = made('hostile', 40, 30000, 60, 4), TRAILER + b'QXLiteMode=1\x0c'
        write('whole', whole, trailer)
        span = '--from', '610.5', '--to', '640'
        rows = lambda file: [row[:5] + row[8:] for row in csv_rows('--processes', *span, file)]  # no percentages
        self.assertEqual(dump_tool('cut', *span, 'whole', 'cut').returncode, 1)
        self.assertEqual(rows('cut'), rows('whole'))
        cut = Path('cut').read_bytes()
        self.assertEqual(dump_tool('cut', 'cut', '-').stdout, cut)
        self.assertTrue(cut.endswith(trailer))
        info = json.loads(output('info', '--json', 'cut'))
        self.assertEqual((info['damaged_bytes'], info['samples_astray']), (0, 0))
        self.assertLess(len(cut), len(whole) * 0.6)
        self.assertEqual(dump_tool('cut', 'whole', 'whole').returncode, 64)

    def test_cut_ends_blocks_before_they_are_longer_than_a_read(self):
        records = made('steady', 40, 30000, 60, 4)
        unmarked = bytearray()
        at = 0
        while at < len(records):
            end = at + 4 + int.from_bytes(records[at:at + 4], 'little')
            unmarked += records[at:end] if end > at + 4 else b''
            at = end
        write('unmarked', unmarked, TRAILER)
        cut, block, longest, at = dump_tool('cut', 'unmarked', '-').stdout[:-len(TRAILER)], 0, 0, 0
        while at < len(cut):
            size = 4 + int.from_bytes(cut[at:at + 4], 'little')
            block, at = block + size, at + size
            longest, block = max(longest, block), 0 if size == 4 else block
        self.assertTrue(120000 < longest <= 131072, longest)

    def test_wall_clock_times_come_from_the_newest_sample(self):
        path = write(NAMED, made('steady', 20, 0, 2000, 5), TRAILER)  # more than is read for the newest sample
        for options, expected in (
                ((), '600 to 2599, 2026-11-24T22:40:58.000Z'),
                (('--from', '700', '--to', '702.5'), '700 to 702, 2026-11-24T22:09:21.000Z'),
                (('--from', '+10', '--to', '+12', '--epoch', '2000-01-01'), '610 to 612, 1999-12-31T23:26:53.000Z'),
                (('--from', '-3', '--epoch', '946684800'), '2596 to 2599, 2000-01-01T00:00:00.000Z'),
                (('--from', '2026-11-24T22:40:00Z', '--to', '2026-11-24 22:40:30.5'),
                 '2541 to 2572, 2026-11-24T22:40:31.000Z'),
                (('--epoch', 'none'), '600 to 2599, ')):
            rows = csv_rows(*options, path)
            self.assertEqual(f'{rows[1][0]} to {rows[-1][0]}, {rows[-1][-1]}', expected)

    def test_exit_codes_say_what_was_read(self):
        payload = made('steady', 9, 2000, 3, 5)
        write('clean', payload, TRAILER)
        write('cut', payload)
        write('damaged', payload, b'\xff' * 77, TRAILER)
        write('trailer', TRAILER)
        write('empty')
        write('text', b'no dump, but a text about dumps\n')
        for words, code in (('info clean', 0), ('info trailer', 0), ('info cut', 1), ('csv damaged', 1), ('info empty', 2),
                            ('csv text', 2), ('info missing clean', 2), ('json .', 2), ('sqlite /nowhere/x.db clean', 2),
                            ('csv --frames -o /dev/full clean', 2), ('csv --vitals --frames clean', 64),
                            ('csv --from yesterday clean', 64)):
            self.assertEqual(dump_tool(*words.split()).returncode, code, words)
        for words, code in ('info -', 0), ('csv --from -5 -', 0), ('sqlite clean clean', 64), ('sqlite empty clean', 64):
            self.assertEqual(dump_tool(*words.split(), input=Path('clean').read_bytes()).returncode, code, words)
        for words, code in ('clickhouse clean', 2), ('clickhouse --schema', 2), ('clickhouse clean -', 64), ('csv clean', 2):
            result = dump_tool(*words.split(), preexec_fn=lambda: os.close(1))
            self.assertEqual((result.returncode, result.stderr.count(b'\n')), (code, 1), words)
        self.assertEqual(dump_tool('csv', 'damaged').stderr, b'vestra-dump: damaged: 77 bytes are damaged, in 1 place\n')


class DumpTrace(DumpTest):
    """Of the hostile dump."""

    def setUp(self):
        super().setUp()
        write('dump', made('hostile'))
        self.tracks, self.counters, self.damage = {}, {}, []
        for event in json.loads(output('perfetto', '--json', 'dump'))['traceEvents']:
            if event['ph'] == 'C':
                self.assertEqual(len(event['args']), 1)
                self.assertIn(event['pid'], self.tracks)
                self.counters.setdefault((event['pid'], event['name']), {})[event['ts']], = event['args'].values()
            elif event['ph'] == 'i':
                self.damage.append(event)
            elif event['name'] == 'process_name':
                self.assertNotIn(event['pid'], self.tracks, 'named twice')
                self.tracks[event['pid']] = event['args']['name']

    def test_each_process_has_a_track_and_damage_is_marked(self):
        names = [row['name'] for row in json_rows('processes', '--processes', 'dump')]
        again = names[-1] + ' (process 100)'  # the last has the first one's id
        self.assertEqual(sorted(self.tracks.values()), sorted({'Vitals of the set', again, *names} - {names[-1]}))
        (mark,) = self.damage
        self.assertAlmostEqual(mark['ts'], 639e6 + 0.009, places=3)
        self.assertEqual(mark['args']['bytes'], 99)

    def test_figures_are_those_of_the_tables(self):
        (vitals,) = (track for track, name in self.tracks.items() if name == 'Vitals of the set')
        shown = sorted(figure for (track, _), figures in self.counters.items() if track == vitals
                       for figure in figures.items())
        rows = json_rows('vitals', '--vitals', 'dump')
        known = {'table', 'second', 'time_ns', 'wall_time'}
        table = sorted((row['time_ns'] / 1000, value) for row in rows for name, value in row.items() if name not in known)
        self.assertGreater(len(table), 50 * 12)
        self.assertEqual(shown, table)
        for row in {row['pid']: row for row in json_rows('processes', '--processes', 'dump')}.values():
            for name, column in ('Resident memory', 'rss_kib'), ('CPU', 'cpu_total'):
                if row['pid'] != 100:
                    self.assertEqual(list(self.counters[row['pid'], name].values())[-1], row[column])


if __name__ == '__main__':
    unittest.main(verbosity=2)
