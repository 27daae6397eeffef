#!/usr/bin/env python3
"""Dumps compared by vestra-dump diff, and dumps for outsiders, whose hidden processes are folded into one."""
import json
import unittest
from pathlib import Path

from dump_output_test import TRAILER, DumpTest, csv_rows, dump_tool, json_rows, made, output, write


def varint(number):
    groups = []
    while number > 127:
        groups.append(number & 127 | 128)
        number >>= 7
    return bytes([*groups, number])


def recording(processes, seconds=120):
    """Seconds with one sample of each process, {name: (pid, KiB, ticks)}; both figures are functions of the second."""
    payload = bytearray()
    for second in range(seconds):
        frame = bytearray(b'\x07\x00')
        for name, (pid, rss, ticks) in processes.items():
            elements = (600 + second) * 10**9, 1, pid, len(name)
            frame += b'\x01' + b''.join(map(varint, elements)) + name + bytes(2)
            frame += b''.join(map(varint, (ticks(second), 0, rss(second), 1, 400, 2))) + bytes(20)
        payload += len(frame).to_bytes(4, 'little') + frame + bytes(4)
    return bytes(payload) + TRAILER


def level(value):
    return lambda second: value


def rate(value):
    return lambda second: value * second


class DumpDiff(DumpTest):
    def test_exit_code_says_whether_dumps_are_alike(self):
        steady = made('steady', 30, 0, 700, 3)
        write('steady', steady, TRAILER)
        for name, span in ('early', ('+0', '+200')), ('late', ('+350', '+650')):
            dump_tool('cut', 'steady', name, '--from', span[0], '--to', span[1])
        early = Path('early').read_bytes()
        write('damaged', early[:30000], b'\xff' * 99, early[30100:])
        write('more', made('steady', 40, 0, 200, 3), TRAILER)
        write('text', b'no dump, but a text about dumps\n')
        write('trailer', TRAILER)
        for words, code in (('early early', 0), ('early late', 0), ('late early', 0), ('early damaged', 0), ('early more', 1),
                            ('more early', 1), ('early missing', 2), ('text early', 2), ('early trailer', 2), ('early', 64),
                            ('early late --tolerance 101%', 64), ('early late --tolerance x', 64)):
            self.assertEqual(dump_tool('diff', *words.split()).returncode, code, words)
        self.assertRegex(dump_tool('diff', 'early', 'damaged').stderr.decode(), r'damaged: \d+ bytes are damaged')
        self.assertEqual(dump_tool('diff', 'early', '-', input=early).returncode, 0)

    def test_differences_are_named_the_greatest_first(self):
        same = {b'same': (9, level(5000), rate(1)), b'leaks': (10, level(60000), rate(1))}
        short_lived = 13, level(300), rate(0)
        write('one', recording({**same, b'gone': (11, level(9000), rate(0)), b'worker': (12, level(900), rate(20))}))
        write('two', recording({**same, b'leaks': (10, lambda second: 60000 + 500 * second, rate(1)),
                                b'new\x1b': (11, level(8000), rate(0)), b'worker': (12, level(900), rate(90))}, 240),
              recording({b'passing': short_lived}, 20))
        result = json.loads(output('diff', '--json', 'one', 'two'))
        self.assertEqual(list(result), ['a', 'b', 'tolerance_percent', 'alike', 'differences', 'vitals', 'processes'])
        self.assertEqual(list(result['a']), ['file', 'build', 'model', 'seconds', 'clean'])
        self.assertFalse(result['alike'])
        self.assertEqual([(row['kind'], row['name'], row['figure']) for row in result['differences']],
                         [('process', 'leaks', 'peak_rss_kib'), ('process', 'worker', 'cpu_percent'),
                          ('vanished', 'gone', 'peak_rss_kib'), ('appeared', r'new\x1b', 'peak_rss_kib')])
        leak, worker, gone, _ = result['differences']
        self.assertEqual((leak['a'], leak['b']), (60000, 60000 + 500 * 239))
        self.assertAlmostEqual(worker['change_percent'], 350)
        self.assertEqual((gone['b'], gone['change_percent']), (None, None))
        figures = result['processes']['leaks']['b']
        self.assertAlmostEqual(figures['growth_kib_per_minute'], 500 * 60, delta=1)
        self.assertEqual(result['processes']['leaks']['a']['growth_kib_per_minute'], 0)
        self.assertEqual(result['vitals']['running_processes']['b'], {'mean': 2, 'p95': 2, 'peak': 2})
        rows = output('diff', 'one', 'two').split('\n')[4:]
        self.assertRegex(rows[0], r'^leaks: memory, peak +60000 +179500 +KiB +\+199 %$')
        rows = output('diff', '--tolerance', '70', 'one', 'two').split('\n')[4:]
        self.assertEqual([row.split(':')[0] for row in rows if 'peak' not in row], ['leaks', 'worker', ''])

    def test_percentile_is_within_one_percent(self):
        for values in range(1, 1001), [7] * 10, [-30] * 19 + [12]:
            frames = b''.join(len(frame).to_bytes(4, 'little') + frame for frame in
                              (b'\x07\x00\x01' + varint(second * 10**9) + b'\x01\x00\x01x' + bytes(6) + varint(0) * 2 +
                               (varint(0) * 3 + varint(value % 2**64) + varint(0)) * 4
                               for second, value in enumerate(values)))
            write('dump', frames, TRAILER)
            found = json.loads(output('diff', '--json', 'dump', 'dump'))['vitals']['temperature_core2']['a']
            exact = sorted(values)[-(-len(values) * 95 // 100) - 1]
            self.assertTrue(exact <= found['p95'] <= exact + 0.01 * abs(exact), (exact, found))
            self.assertAlmostEqual(found['mean'], sum(values) / len(values))
            self.assertEqual(found['peak'], max(values))


def totals(path):
    """Ticks that all processes used, and by second the memory of those with a sample in it."""
    ticks, memory = 0, {}
    for row in json_rows('processes', '--processes', path):
        ticks += row['used_ticks']
        memory.setdefault(row['time_ns'] // 10**9, {})[row['pid'], row['name']] = row['rss_kib']
    return ticks, {second: sum(processes.values()) for second, processes in memory.items()}


class DumpFolding(DumpTest):
    def test_totals_are_unchanged_and_no_hidden_name_is_left(self):
        hidden_frame = b'\x09\x00updater'  # of an unknown type
        for source in ('steady', 30, 9000, 130, 4), ('steady', 300, 0, 60, 5), ('burst', 40, 0, 60, 6), ('hostile',):
            payload = made(*source)
            write('whole', payload, b'' if source == ('hostile',) else
                  2 * (len(hidden_frame).to_bytes(4, 'little') + hidden_frame) + bytes(4) + TRAILER)
            names = {row['name'] for row in json_rows('processes', '--processes', 'whole')}
            shown = {'tuner', 'epg', '@{data}@'}
            hidden = sorted(names - shown)
            for option, chosen in ('--only', sorted(shown)), ('--hide', hidden):
                dump_tool('cut', option, *chosen, 'whole', 'cut')
                with self.subTest(source=source, option=option):
                    cut = Path('cut').read_bytes()
                    self.assertEqual(dump_tool('info', 'cut').returncode, 0)
                    self.assertLess(len(cut), len(payload) * 0.6)
                    for name in hidden:
                        self.assertNotIn(name.encode(), cut)
                    self.assertEqual(output('csv', 'cut'), output('csv', 'whole'))
                    self.assertEqual(totals('cut'), totals('whole'))
                    rows = lambda path: [row[:4] + row[8:] for row in csv_rows('--processes', path) if row[3] in shown]
                    self.assertEqual(rows('cut'), rows('whole'))
                    self.assertEqual({row[3] for row in csv_rows('--processes', 'cut')[1:]} - {'other'}, names & shown)

    def test_names_match_as_recorded_and_as_printed_and_up_to_15_bytes(self):
        recorded = b'fifteen-bytes-x', b'\xff\x1b\\', b'plain\0secret', b'other', b'last'
        write('whole', recording({name: (300 + i, level(100), rate(1)) for i, name in enumerate(recorded)}, 20))
        for option, given, shown in (('--only', b'fifteen-bytes-xyz', {'fifteen-bytes-x'}),
                                     ('--only', rb'\xff\x1b\\', {r'\xff\x1b\\'}), ('--only', recorded[1], {r'\xff\x1b\\'}),
                                     ('--only', b'plain', {'plain'}), ('--only', b'fifteen', set()),
                                     ('--hide', b'last', {'fifteen-bytes-x', r'\xff\x1b\\', 'plain'})):
            result = dump_tool('cut', 'whole', 'cut', option, given.decode(errors='surrogateescape'))
            self.assertEqual(result.returncode, 0)
            self.assertEqual({row[3] for row in csv_rows('--processes', 'cut')[1:]}, shown | {'other'}, given)
            self.assertNotIn(b'secret', Path('cut').read_bytes())
            self.assertEqual(b'no process has the name' in result.stderr, given == b'fifteen')
            self.assertEqual(dump_tool('cut', option, 'last', 'cut', '-').returncode, 0)  # has an "other"
        self.assertIn(b"'last' is not hidden", dump_tool('cut', '--hide', 'as', 'whole', 'cut').stderr)
        for words in ('--only', 'other'), ('--hide', 'a', '--only', 'b'), ('--hide', ''):
            self.assertEqual(dump_tool('cut', 'whole', 'cut', *words).returncode, 64, words)


if __name__ == '__main__':
    unittest.main(verbosity=2)
