#!/usr/bin/env python3
"""The dump tool's lake: what is in it whatever happens, and that readers of other people find the figures of csv in it."""
import datetime
import json
import os
import resource
import shutil
import signal
import subprocess
import unittest
from pathlib import Path

from dump_output_test import BUILD, NAMED, TRAILER, DumpTest, csv_rows, dump_tool, made, output, write

READERS = BUILD.parent / 'parquet-readers'
READ = Path(__file__).resolve().parent / 'parquet_readers/read.mjs'
TABLES = ['damage', 'dumps', 'processes', 'vitals']


def files(lake='lake'):
    return sorted(str(path.relative_to(lake)) for path in Path(lake).rglob('*') if path.is_file())


def expected_files(*places):
    return sorted(f'{table}/{place}.parquet' for table in TABLES for place in places)


def contents(lake):
    return {file: (Path(lake) / file).read_bytes() for file in files(lake)}


class DumpLake(DumpTest):
    def setUp(self):
        super().setUp()
        self.payload = made('steady', 9, 2000, 3, 5)
        write(NAMED, self.payload, TRAILER)

    def convert(self, *words, code=0, **more):
        result = dump_tool('parquet', '-o', 'lake', *words, **more)
        self.assertEqual(result.returncode, code, result.stderr)
        return result.stderr.decode()

    def test_dump_that_the_lake_has_is_left_alone(self):
        for parts, code in ((self.payload, TRAILER), 0), ((b'\xff' * 77, self.payload, TRAILER), 1):
            with self.subTest(code=code):
                shutil.rmtree('lake', ignore_errors=True)
                write(NAMED, *parts)
                self.convert(NAMED, code=code)
                self.assertEqual(files(), expected_files(f'model=24_TVX/day=2026-11-24/{NAMED}'))
                before = {file: os.stat(Path('lake') / file).st_ino for file in files()}
                self.convert('./' + NAMED, code=code)
                self.assertEqual({file: os.stat(Path('lake') / file).st_ino for file in files()}, before)

    def test_dump_is_in_one_partition_when_its_day_changes(self):
        self.convert('--epoch', 'none', NAMED)
        self.assertEqual(files(), expected_files(f'model=24_TVX/day=unknown/{NAMED}'))
        self.convert(NAMED)
        self.assertEqual(files(), expected_files(f'model=24_TVX/day=2026-11-24/{NAMED}'))

    def test_another_dump_of_the_same_name_is_refused(self):
        self.convert(NAMED)
        before = contents('lake')
        write(NAMED, self.payload)  # of the same set, or of another one: nobody knows
        self.assertIn('another dump of this name', self.convert(NAMED, code=2))
        self.assertEqual(contents('lake'), before)
        self.convert('--prefix', 'set2-', NAMED, code=1)
        whole, cut = f'model=24_TVX/day=2026-11-24/{NAMED}', 'model=unknown/day=unknown/'
        self.assertEqual(files(), expected_files(whole, cut + 'set2-' + NAMED))
        self.convert('--replace', NAMED, code=1)
        self.assertEqual(files(), expected_files(cut + NAMED, cut + 'set2-' + NAMED))

    def test_incomplete_dump_is_converted_again(self):
        self.convert(NAMED)
        complete = contents('lake')
        for table in TABLES[1:]:
            os.remove(f'lake/{table}/model=24_TVX/day=2026-11-24/{NAMED}.parquet')
        self.convert(NAMED)
        self.assertEqual(contents('lake'), complete)

    def test_no_text_of_a_dump_leads_out_of_the_lake(self):
        models = {b'..': '%2E.', b'm=1%2F*': 'm%3D1%252F%2A', b'TV\xc3\xbc\xff\\': 'TV\xfc%5Cxff%5C%5C', b'': 'unknown'}
        for number, (model, place) in enumerate(models.items()):
            name = os.fsdecode(b'.a=b%%2F\n\xff\xc3\xbc*%d' % number)
            version = b'T-RX-1107.2/eu/' + model + b'\r\n'
            write(name, self.payload, version, bytes([len(version)]))
            self.convert(name)
            file = f'%2Ea%3Db%252F%5Cx0a%5Cxff\xfc%2A{number}'
            self.assertIn(f'dumps/model={place}/day=unknown/{file}.parquet', files())
        long = '%' * 255
        write(long, self.payload, TRAILER)
        self.convert(long)
        self.assertEqual(len(files()), 4 * (len(models) + 1))
        self.assertEqual(len(os.listdir('.')), len(models) + 3)  # with the lake, and a dump for each row

    def test_bad_dump_does_not_stop_the_rest(self):
        write('damaged', self.payload, b'\xff' * 77, TRAILER)
        write('text', b'no dump, but a text about dumps\n')
        write('empty')
        said = self.convert('text', NAMED, 'missing', 'damaged', 'empty', code=1)
        self.assertIn('2 converted, 0 in the lake already, 3 left out:\nvestra-dump:   text\n', said)
        self.assertEqual(len(files()), 2 * 4)
        self.convert('text', 'empty', code=2)
        self.convert('-', code=64)
        self.convert('--epoch', 'never', NAMED, code=64)

    def test_no_half_file_gets_its_name_on_a_full_disk(self):
        def limit():
            signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
            resource.setrlimit(resource.RLIMIT_FSIZE, (3500, 3500))  # vitals fit, processes do not
        self.assertIn('File too large', self.convert(NAMED, code=2, preexec_fn=limit))
        self.assertEqual(files(), [])
        self.convert(NAMED)
        before = contents('lake')
        write(NAMED, self.payload)
        self.convert('--replace', NAMED, code=2, preexec_fn=limit)
        self.assertEqual(contents('lake'), before)

    def test_lake_that_cannot_be_one_is_refused(self):
        write('lake', b'a file')
        self.assertIn('lake: Not a directory', self.convert(NAMED, code=2))
        self.assertEqual(Path('lake').read_bytes(), b'a file')
        self.assertEqual(dump_tool('parquet', '-o', 'lake/below', NAMED).returncode, 2)

    def test_converters_of_the_same_dumps_at_once_make_the_lake_of_one(self):
        names = [NAMED] + [str(write(f'dump{seed}', made('hostile', 40, 9000, 60, seed), TRAILER)) for seed in range(5)]
        dump_tool('parquet', '-o', 'alone', *names)
        command = [BUILD / 'tools/vestra-dump', 'parquet', '-o', 'lake']
        running = [subprocess.Popen([*command, *names[turn:], *names[:turn]]) for turn in range(4)]
        self.assertEqual([process.wait() for process in running], [1] * 4)
        self.assertEqual(contents('lake'), contents('alone'))

    def test_only_one_of_different_dumps_of_the_same_name_gets_into_the_lake(self):
        for seed in range(4):  # one of them in another partition
            os.mkdir(f'set{seed}')
            write(f'set{seed}/{NAMED}', made('steady', 30, 9000, 30, seed), TRAILER if seed else b'')
            dump_tool('parquet', '-o', f'alone{seed}', f'set{seed}/{NAMED}')
        for _ in range(5):
            running = [subprocess.Popen([BUILD / 'tools/vestra-dump', 'parquet', '-o', 'lake', f'set{seed}/{NAMED}'],
                                        stderr=subprocess.DEVNULL) for seed in range(4)]
            self.assertEqual([process.wait() for process in running].count(2), 3)
            self.assertIn(contents('lake'), [contents(f'alone{seed}') for seed in range(4)])
            shutil.rmtree('lake')


def milliseconds(wall_time):
    time = datetime.datetime.strptime(wall_time, '%Y-%m-%dT%H:%M:%S.%fZ').replace(tzinfo=datetime.timezone.utc)
    return round(time.timestamp() * 1000)


@unittest.skipUnless(shutil.which('node') and (READERS / 'installed.json').exists(),
                     f'no readers: scripts/install-deps check puts them into {READERS} if it can reach npm')
class DumpLakeReaders(DumpTest):
    TYPES = {'duckdb': ('VARCHAR', 'BIGINT', 'DOUBLE', 'TIMESTAMP WITH TIME ZONE'),
             'wasm': ('Utf8', 'Int64', 'Float64', 'Timestamp<MICROSECOND, UTC>'),
             'hyparquet': ('STRING', 'INT64', 'DOUBLE', 'TIMESTAMP')}
    TEXTS = 'dump', 'name', 'reason', 'build', 'model'

    def setUp(self):
        super().setUp()
        os.symlink(READERS / 'node_modules', 'node_modules')
        shutil.copy(READ, '.')

    def read(self, *words):
        """Of each file or statement, what read.mjs says."""
        result = subprocess.run(['node', 'read.mjs', *map(str, words)], capture_output=True, check=False)
        self.assertEqual(result.returncode, 0, result.stderr.decode())
        return json.loads(result.stdout)

    def check_table(self, reader, table, dump, got):
        """The rows of a table are those of csv, and every type is right."""
        text, integer, real, timestamp = self.TYPES[reader]
        header, *rows = csv_rows('--' + table, dump)
        self.assertEqual(list(got['columns']), ['dump', *header])
        reals = {'cpu_total', 'cpu_user', 'cpu_system'} if table == 'processes' else {*header[2:-1]} if table == 'vitals' else {}
        for name, kind in got['columns'].items():
            self.assertEqual(kind, text if name in self.TEXTS else timestamp if name == 'wall_time' else
                             real if name in reals else integer, name)
        if table == 'processes':
            rows.sort(key=lambda row: (row[3].encode(), int(row[1]), int(row[0])))
        convert = [float if name in reals else milliseconds if name == 'wall_time' else str for name in header]
        self.assertEqual([row[:-1] + [row[-1] and int(row[-1]) // 1000] for row in got['rows']],
                         [[dump] + [kind(cell) if cell else None for kind, cell in zip(convert, row)] for row in rows])
        self.assertEqual(got['metadata']['vestra.dump'], dump)

    def test_every_figure_is_that_of_csv(self):
        damaged = bytearray(made('everyday', 60, 20000, 30, 3))
        damaged[5000:5100] = bytes(100)
        write(NAMED, damaged, TRAILER)
        write('hostile', made('hostile'))
        write('none', TRAILER)
        dump_tool('parquet', '-o', 'lake', NAMED, 'hostile', 'none')
        tables = [(table, dump) for table in ('vitals', 'processes', 'damage') for dump in (NAMED, 'hostile', 'none')]
        paths = [next(Path('lake', table).rglob(f'{dump}.parquet')) for table, dump in tables]
        for reader in self.TYPES:
            for (table, dump), got in zip(tables, self.read(reader, *paths), strict=True):
                with self.subTest(reader=reader, table=table, dump=dump):
                    self.check_table(reader, table, dump, got)

    def test_engine_sees_one_table_of_all_dumps(self):
        write(NAMED, made('steady', 20, 5000, 20, 3), TRAILER)
        write('cut', made('hostile', 20, 5000, 20, 3))
        dump_tool('parquet', '-o', 'lake', NAMED, 'cut')
        rows, counts = self.read(
            'query', "SELECT dump, model, day::VARCHAR, build, bytes, trailer FROM 'lake/dumps/*/*/*.parquet' ORDER BY dump",
            "SELECT dump, count(*) FROM 'lake/processes/*/*/*.parquet' GROUP BY dump ORDER BY dump")
        self.assertEqual(rows, [[NAMED, '24_TVX', '2026-11-24', 'T-RX-1107.2/eu', str(os.stat(NAMED).st_size), '1'],
                                ['cut', 'unknown', 'unknown', None, str(os.stat('cut').st_size), '0']])
        self.assertEqual(counts, [[dump, str(len(csv_rows('--processes', dump)) - 1)] for dump in (NAMED, 'cut')])

    def test_row_groups_are_left_out_by_their_statistics(self):
        write(NAMED, made('steady', 400, 34000, 500, 1), TRAILER)  # more rows than one row group has
        dump_tool('parquet', '-o', 'lake', NAMED)
        (file,) = Path('lake/processes').rglob('*.parquet')
        columns = 'dump', 'name', 'cpu_total', 'time_ns'
        statements = [f"""SELECT row_group_id, stats_min_value, stats_max_value, stats_null_count,
                coalesce(dictionary_page_offset, data_page_offset) FROM parquet_metadata('{file}')
                WHERE path_in_schema = '{column}' ORDER BY 1""" for column in columns]
        statements += [f"""SELECT part, min({column})::VARCHAR, max({column})::VARCHAR, count(*) - count({column})
                FROM (SELECT {column}, floor((row_number() OVER () - 1) / 131072)::BIGINT AS part FROM '{file}')
                GROUP BY part ORDER BY part""" for column in columns]
        answers = self.read('query', *statements)
        for stored, actual in zip(answers[:4], answers[4:]):
            self.assertEqual([row[:4] for row in stored], actual)
        begin = [int(row[4]) for row in answers[0]]
        self.assertEqual(len(begin), 2)
        # What a reader leaves out may be broken.
        broken = bytearray(file.read_bytes())
        broken[begin[0]:begin[1]] = b'\xaa' * (begin[1] - begin[0])
        file.write_bytes(broken)
        older, newer = (int(row[2]) for row in answers[3])
        self.assertGreater(newer, older)
        self.assertEqual(self.read('query', f"SELECT max(time_ns) FROM '{file}' WHERE time_ns > {older}"), [[[str(newer)]]])
        with self.assertRaises(AssertionError):
            self.read('query', f"SELECT max(rss_kib) FROM '{file}'")


if __name__ == '__main__':
    unittest.main(verbosity=2)
