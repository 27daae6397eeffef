#!/usr/bin/env python3
"""Native traces of the dump tool, as protoc reads them."""
import ast
import json
import os
import pty
import subprocess
import unittest
from pathlib import Path

from dump_output_test import NAMED, TRAILER, DumpTest, csv_rows, dump_tool, json_rows, made, output, write

HERE = Path(__file__).resolve().parent
SECOND = 10**9


def decode(trace):
    """The packets: dictionaries with a list for each field. protoc refuses texts that are not UTF-8."""
    text = subprocess.run(['protoc', '-I', HERE, '--decode=Trace', 'perfetto.proto'], input=trace, capture_output=True,
                          check=True).stdout.decode()
    levels = [{}]
    for line in map(str.strip, text.splitlines()):
        if line == '}':
            levels.pop()
        elif line.endswith(' {'):
            levels.append({})
            levels[-2].setdefault(line[:-2], []).append(levels[-1])
        else:
            key, value = line.split(': ', 1)
            value = ast.literal_eval('b' + value).decode() if value[0] == '"' else json.loads(value)
            levels[-1].setdefault(key, []).append(value)
        assert not line[:1].isdigit(), 'a field that is not in the .proto file: ' + line
    return levels[0]['packet']


def trace_of(*words):
    return decode(dump_tool('perfetto', *words).stdout)


def of_kind(packets, kind):
    return [(packet.get('timestamp', [None])[0], packet[kind][0]) for packet in packets if kind in packet]


def tracks(packets):
    return {track['uuid'][0]: track for _, track in of_kind(packets, 'track')}


def figure(event):
    return (event.get('whole') or event['real'])[0]


def histories(packets):
    """By process id and name: (time, figure) of memory and CPU, assigned as an importer does it."""
    known, current, parents, found = tracks(packets), {}, {}, {}
    for time, packet in sorted(((p.get('timestamp', [0])[0], p) for p in packets), key=lambda pair: pair[0]):
        for process in packet.get('track', [{}])[0].get('process', []):
            current[process['pid'][0]] = process['name'][0]
        for process in packet.get('process_tree', [{}])[0].get('process', []):
            parents[process['pid'][0]] = process.get('parent', [0])[0]
        for stats in packet.get('process_stats', [{}])[0].get('process', []):
            for name in {'rss', 'swap'} & set(stats):
                found.setdefault((stats['pid'][0], current[stats['pid'][0]], name), []).append((time, stats[name][0]))
        for event in packet.get('event', []):
            owner = known[known[event['track'][0]].get('parent', [0])[0] or event['track'][0]].get('process')
            if owner:
                key = owner[0]['pid'][0], owner[0]['name'][0], 'cpu'
                found.setdefault(key, []).append((time, figure(event)))
    return found, parents


class PerfettoTrace(DumpTest):
    def test_vitals_are_those_of_the_table_and_have_units(self):
        write('dump', made('hostile'))
        packets = trace_of('dump')
        known = tracks(packets)
        counters = {uuid: track for uuid, track in known.items() if 'axis' in track.get('counter', [{}])[0]}
        self.assertEqual(len(counters), 17)
        for track in counters.values():
            self.assertIn('Vitals of dump', known[known[track['parent'][0]]['parent'][0]]['name'])
        shown = sorted((time, figure(event)) for time, event in of_kind(packets, 'event') if event['track'][0] in counters)
        table = sorted((row['time_ns'], value) for row in json_rows('vitals', '--vitals', 'dump') for name, value in row.items()
                       if name not in {'table', 'second', 'time_ns', 'wall_time'})
        self.assertEqual(shown, table)
        (cores, memory) = ([packet for packet in of_kind(packets, 'sys_stats') if field in packet[1]] for field in ('core', 'memory'))
        self.assertEqual((len(cores), len(memory)), (50, 50))
        self.assertEqual(cores[-1][1]['core'][3], {'id': [3], 'user': [59 * 200_000_000], 'system': [59 * 40_000_000],
                                                   'idle': [59 * 760_000_000], 'io_wait': [59 * 4_000_000]})
        self.assertEqual(memory[-1][1]['memory'], [{'key': [2], 'value': [194100]}, {'key': [3], 'value': [700000]},
                                                   {'key': [5], 'value': [700000]}])

    def test_processes_have_the_figures_of_the_table(self):
        for name, payload in (('names, a process id used again', made('hostile')), ('steady', made('steady', 40, 9000, 60, 5)),
                              ('ten thousand processes', made('steady', 10_000, 0, 3, 5))):
            with self.subTest(name):
                write('dump', payload)
                found, parents = histories(trace_of('dump'))
                table = {}
                for row in json_rows('processes', '--processes', 'dump'):
                    self.assertEqual(parents[row['pid']], row['parent'])
                    for kind, column in ('rss', 'rss_kib'), ('swap', 'swap_kib'), ('cpu', 'cpu_total'):
                        figures = table.setdefault((row['pid'], row['name'], kind), [])
                        before = figures[-1][1] if figures else None if kind == 'cpu' else 0
                        if row.get(column, before) != before:
                            figures.append((row['time_ns'], row[column]))
                table = {key: figures for key, figures in table.items() if figures}
                self.assertEqual({key: [figure for _, figure in figures] for key, figures in found.items()},
                                 {key: [figure for _, figure in figures] for key, figures in table.items()})
                for key, figures in table.items():
                    for (true, _), (time, _) in zip(figures, found[key]):
                        self.assertTrue(0 <= true - time < (1 if key[2] == 'cpu' else SECOND / 10), (key, true, time))

    def test_damage_gaps_and_findings_are_marked(self):
        write('dump', made('hostile'))
        write('faulty', made('steady', 40, 0, 240, 7, 'cpu-hog@150'), TRAILER)
        mark, begin, end, finding = (event for event in of_kind(trace_of('dump'), 'event') if event[1]['type'] != [4])
        self.assertEqual((mark[0], mark[1]['category'], mark[1]['annotation'][2]), (639 * SECOND + 9, ['damage'],
                                                                                    {'name': ['bytes'], 'unsigned': [99]}))
        self.assertEqual((begin[0], begin[1]['type'], end[0], end[1]['type']), (620 * SECOND, [1], 630 * SECOND, [2]))
        self.assertEqual((finding[0], finding[1]['name']), (619 * SECOND + 9, ['gap']))
        findings = json.loads(output('explain', '--json', 'faulty'))['findings']
        self.assertGreater(len(findings), 0)
        self.assertEqual([(time, event['annotation'][0]['text'][0]) for time, event in of_kind(trace_of('faulty'), 'event')
                          if event['type'] == [3]], [(finding['from_ns'], finding['text']) for finding in findings])

    def test_a_wall_clock_is_written_only_if_it_is_known(self):
        payload = made('steady', 9, 2000, 3, 5)
        for words, trailer, known in ((), TRAILER, True), ((), b'', False), (('--epoch', 'none'), TRAILER, False):
            write(NAMED, payload, trailer)
            clocks = [[clock['time'][0] for clock in snapshot['clock']] for _, snapshot in
                      of_kind(trace_of(*words, NAMED), 'clock_snapshot')]
            self.assertEqual([unix - boot for boot, unix in clocks], [1795560058 * SECOND - int(csv_rows('--processes', NAMED)[-1][0])] * known)

    def test_each_set_is_one_machine(self):
        ids, numbers = {}, {}
        for name, words in ('a/dump', ()), ('b/dump', ()), ('a/named', ('--machine', 'lab-7')), ('b/named', ('--machine', 'lab-7')):
            Path(name).parent.mkdir(exist_ok=True)
            write(name, made('steady', 9, 2000, 3, 5 if name[0] == 'a' else 6))
            packets = trace_of(*words, name)
            (ids[name],) = {packet['machine'][0] for packet in packets}
            numbers[name] = set(tracks(packets))
        self.assertEqual(len(set(ids.values())), 3)
        self.assertEqual(ids['a/named'], ids['b/named'])
        self.assertEqual(numbers['a/named'] & numbers['b/named'], set())

    def test_what_cannot_be_written_is_refused(self):
        write('dump', made('steady', 9, 2000, 3, 5), TRAILER)
        for words, code in (('-o', '/dev/full'), 2), (('--json', '--machine', 'x'), 64):
            self.assertEqual(dump_tool('perfetto', 'dump', *words).returncode, code, words)
        terminal, end = pty.openpty()
        tool = dump_tool('--version').args[0]
        self.assertEqual(subprocess.run([tool, 'perfetto', 'dump'], stdout=end, stderr=end, check=False).returncode, 64)
        self.assertIn(b'no text for a terminal', os.read(terminal, 1000))


if __name__ == '__main__':
    unittest.main(verbosity=2)
