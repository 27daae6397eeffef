#!/usr/bin/env python3
"""Dumps for outsiders, whose hidden processes are folded into one."""
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
