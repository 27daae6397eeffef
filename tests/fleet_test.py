#!/usr/bin/env python3
"""Many dumps in other people's engines: what docs/sql asks is answered as SQLite answers it."""
import json
import os
import re
import shutil
import socket
import sqlite3
import subprocess
import tempfile
import time
import unittest
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
BUILD = Path(os.environ.get('VESTRA_BUILD', ROOT / 'build/release')).resolve()
DUMP = BUILD / 'tools/vestra-dump'
TRAILER = b'T-RX-1107.2/eu/24_TVX\r\n\x17'
TABLES = 'vitals', 'processes', 'damage', 'dumps'


def statements(text):
    return [statement for statement in re.sub('(?m)^--.*$', '', text).split(';') if statement.strip()]


def comparable(cell):
    """A figure to six digits; a dump by its name."""
    try:
        return float(f'{float(cell):.6g}')
    except (TypeError, ValueError):
        return (cell or '').rpartition('/')[2] if cell not in (None, r'\N') else ''


class FleetTest(unittest.TestCase):
    """Forty dumps of 70 s; of each ten, one is damaged and one has no end."""
    longMessage = True
    DUMPS = 40

    @classmethod
    def setUpClass(cls):
        directory = tempfile.TemporaryDirectory()
        cls.addClassCleanup(directory.cleanup)
        cls.place = Path(directory.name)
        for number in range(cls.DUMPS):
            path = cls.place / f'0000000000_{number}_set_{1795560000 + 60 * number}'
            subprocess.run([BUILD / 'bench/fault_dump', path, '70', 'everyday', str(number)], check=True, stdout=subprocess.DEVNULL)
            data = bytearray(path.read_bytes())
            data[-len(TRAILER):] = TRAILER.replace(b'1107.2', b'1108.0') if number % 2 else TRAILER
            if number % 10 == 3:
                data[5000:5100] = bytes(100)
            path.write_bytes(data[:-300] if number % 10 == 4 else data)
        cls.dumps = sorted(cls.place.glob('0000000000_*'))
        loaded = subprocess.run([DUMP, 'sqlite', cls.place / 'all.db', *cls.dumps], check=False, stderr=subprocess.DEVNULL)
        assert loaded.returncode == 1
        cls.database = sqlite3.connect(cls.place / 'all.db')
        cls.addClassCleanup(cls.database.close)

    def check_answers(self, answers):
        """Against the statements of the documentation. The columns that both have are compared."""
        page = (ROOT / 'docs/reading-dumps.md').read_text()
        questions = re.findall('```sql\n(.*?)```', page[page.index('## Many dumps'):], re.S)[:5]
        for question, answer, ours, theirs in zip(questions, answers, (0, 1, 0, 0, 0), (0, 2, 1, 0, 0), strict=True):
            expected = [[comparable(cell) for cell in row[ours:]] for row in self.database.execute(question)]
            got = [[comparable(cell) for cell in row[theirs:]] for row in answer]
            width = min(len(got[0]), len(expected[0]))
            order = sorted if 'ORDER BY' not in question.split(')')[-1] else list
            self.assertEqual(order(row[:width] for row in got), order(row[:width] for row in expected), question)


READERS = BUILD.parent / 'parquet-readers'


@unittest.skipUnless(shutil.which('node') and (READERS / 'installed.json').exists(), 'no DuckDB here')
class DuckDb(FleetTest):
    def test_lake_answers_as_sqlite_does(self):
        subprocess.run([DUMP, 'parquet', '-o', self.place / 'lake', *self.dumps], check=False, stderr=subprocess.DEVNULL)
        os.symlink(READERS / 'node_modules', self.place / 'node_modules')
        reader = shutil.copy(ROOT / 'tests/parquet_readers/read.mjs', self.place)
        questions = statements((ROOT / 'docs/sql/duckdb.sql').read_text())
        asked = subprocess.run(['node', reader, 'query', *questions], cwd=self.place / 'lake', check=True, stdout=subprocess.PIPE)
        self.check_answers(json.loads(asked.stdout))



SERVER = shutil.which('clickhouse-server') or ROOT / 'build/clickhouse-server'


@unittest.skipUnless(shutil.which('clickhouse-client') and os.access(SERVER, os.X_OK), 'no ClickHouse here')
class ClickHouse(FleetTest):
    def setUp(self):
        sockets = [socket.create_server(('127.0.0.1', 0)) for _ in range(2)]
        self.ports = [listening.getsockname()[1] for listening in sockets]
        for listening in sockets:
            listening.close()
        self.servers = [None, None]
        (self.place / 'users.xml').write_text(
            '<yandex><profiles><default/></profiles><users><default><password/><profile>default</profile><quota>default</quota>'
            '<networks><ip>127.0.0.1</ip></networks></default></users><quotas><default/></quotas></yandex>')
        shards = ''.join(f'<shard><replica><host>127.0.0.1</host><port>{port}</port></replica></shard>' for port in self.ports)
        for number, port in enumerate(self.ports):
            (self.place / f'server-{number}.xml').write_text(
                f'<yandex><logger><level>error</level><console>1</console></logger><listen_host>127.0.0.1</listen_host>'
                f'<tcp_port>{port}</tcp_port><path>{self.place}/data-{number}/</path><tmp_path>{self.place}/tmp-{number}/</tmp_path>'
                f'<mark_cache_size>100000000</mark_cache_size><users_config>{self.place}/users.xml</users_config>'
                f'<default_profile>default</default_profile><default_database>default</default_database>'
                f'<remote_servers><sets>{shards}</sets></remote_servers></yandex>')
            self.start(number)
            schema = subprocess.run([DUMP, 'clickhouse', '--schema', '--cluster', 'sets'], check=True, stdout=subprocess.PIPE)
            subprocess.run([*self.client(number), '--multiquery'], input=schema.stdout, check=True)

    def start(self, number):
        with open(self.place / f'server-{number}.log', 'ab') as log:
            server = subprocess.Popen([SERVER, '--config-file', self.place / f'server-{number}.xml'], stdout=log, stderr=log)
        self.servers[number] = server
        self.addCleanup(lambda: (server.kill(), server.wait()))
        end = time.monotonic() + 60
        while subprocess.run([*self.client(number), '--query', 'SELECT 1'], check=False, capture_output=True).returncode:
            self.assertLess(time.monotonic(), end, (self.place / f'server-{number}.log').read_text('latin1'))
            time.sleep(0.05)

    def client(self, number):
        return ['clickhouse-client', '--host', '127.0.0.1', '--port', str(self.ports[number])]

    def ask(self, statement):
        answer = subprocess.run([*self.client(0), '--query', statement], check=True, stdout=subprocess.PIPE, text=True).stdout
        return [line.split('\t') for line in answer.splitlines()]

    def load(self, dumps):
        environment = {**os.environ, 'CLICKHOUSE': ' '.join(self.client(0)), 'VESTRA_DUMP': f'{DUMP} clickhouse'}
        return subprocess.run([ROOT / 'docs/sql/load-clickhouse', *dumps], env=environment, check=False, capture_output=True).returncode

    def test_dumps_loaded_again_after_a_server_died_are_there_once(self):
        count = {table: dict(self.database.execute(
            f'SELECT file, count(*) FROM {table} JOIN dumps USING (dump_id) GROUP BY file')) for table in TABLES[:-1]}
        with ThreadPoolExecutor(4) as pool:
            jobs = [self.dumps[first:first + 5] for first in range(0, self.DUMPS, 5)]
            running = [pool.submit(self.load, job) for job in jobs]
            running[1].result()
            self.servers[1].kill()
            self.servers[1].wait()
            codes = [one.result() for one in running]
            self.assertIn(2, codes, 'a load that failed says so')
            self.start(1)
            listed = {dump for dump, in self.ask('SELECT DISTINCT dump FROM vestra.dumps')}
            self.assertLess(len(listed), self.DUMPS)
            for table, rows in count.items():
                there = dict(self.ask(f'SELECT dump, count() FROM vestra.{table} FINAL GROUP BY dump'))
                for file, number in rows.items():
                    if Path(file).name in listed:
                        self.assertEqual(int(there.get(Path(file).name, 0)), number, f'{table} of a dump that is listed')
            self.assertLessEqual(set(pool.map(self.load, jobs)), {0, 1})
        for table, rows in count.items():
            self.assertEqual(int(self.ask(f'SELECT count() FROM vestra.{table} FINAL')[0][0]), sum(rows.values()), table)
        self.assertEqual(self.ask('SELECT count() FROM vestra.dumps FINAL'), [[str(self.DUMPS)]])
        self.assertEqual({int(row[0]) > 0 for row in self.ask(
            'SELECT count() FROM vestra.processes_local UNION ALL SELECT 0')}, {True, False}, 'this server has some')
        self.check_answers([self.ask(statement) for statement in statements((ROOT / 'docs/sql/clickhouse.sql').read_text())])

    def test_unknown_figure_and_hostile_name_arrive_as_they_are(self):
        hostile = self.place / "a'b\\t\t`"
        shutil.copy(self.dumps[0], hostile)
        self.assertEqual(self.load([hostile]), 0)
        self.assertEqual(self.ask("SELECT count(), count(cpu_total), count(wall_time), any(dump) FROM vestra.vitals FINAL "
                                  "WHERE dump NOT LIKE '0000%' FORMAT TabSeparatedRaw"),
                         [['70', '69', '0', r"a'b\\t\x09`"]])


if __name__ == '__main__':
    unittest.main(verbosity=2)
