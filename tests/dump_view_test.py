#!/usr/bin/env python3
"""A dump in a terminal: what a person does with "vestra-dump view", and figures that are those of csv."""
import json
import os
import random
import re
import signal
import subprocess
import unittest

from dump_output_test import BUILD, NAMED, TRAILER, DumpTest, csv_rows, dump_tool, json_rows, made, output, write
from terminal import Terminal

TOOL = BUILD / 'tools/vestra-dump'
DECIMALS = (0, 2, 2, 2, 2, 1, 1, 1, 1, 1, 2, 2, 2, 2, 0, 0, 0)  # of the vitals in a table


class DumpView(DumpTest):
    @classmethod
    def setUpClass(cls):
        faults = 'memory-growth@120', 'cpu-hog@150', 'gap@60'
        payload = subprocess.run([BUILD / 'tests/write_dump', 'everyday', '0', '0', '200', '17', *faults], check=True,
                                 capture_output=True).stdout
        cls.payload = payload

    def setUp(self):
        super().setUp()
        self.dump = write(NAMED, self.payload, TRAILER)
        self.vitals = csv_rows(self.dump)[1:]
        self.last = len(self.vitals)

    def view(self, *words, **more):
        terminal = Terminal(TOOL, 'view', *(words or [self.dump]), **more)
        self.addCleanup(terminal.__exit__)
        if 'rows' not in more:
            terminal.shows('q quit')
        return terminal

    def at(self, terminal, place):
        """Waits until the cursor is at that second, counted from 1."""
        terminal.shows(rf' {place}/{self.last} ')

    def rows(self, screen):
        """pid: (name, cpu, user, system, rss, swap) of the processes on a wide screen."""
        found = re.findall(r'(?m)^ *(\d+) (\S+) +(-|[\d.]+) +(-|[\d.]+) +(-|[\d.]+) +(\d+) +(\d+) +[-+\d]+$', screen)
        return {int(row[0]): row[1:] for row in found}

    def expected_rows(self, second):
        """The same from csv: the last sample of each process in the second."""
        columns, *samples = self.samples
        last = {}
        for sample in samples:
            row = dict(zip(columns, sample))
            if int(row['time_ns']) // 10**9 == second:
                figure = lambda name: f'{float(row[name]):.2f}' if row[name] else '-'
                last[int(row['pid'])] = (row['name'], *map(figure, ('cpu_total', 'cpu_user', 'cpu_system')),
                                         row['rss_kib'], row['swap_kib'])
        return last

    def test_every_second_has_the_figures_of_csv(self):
        self.samples = csv_rows('--processes', self.dump)
        vitals, terminal = self.vitals, self.view(columns=100, rows=70)
        self.at(terminal, place := self.last)
        names = re.findall(r'(?m)^ *\d+\*? +(\S+)', subprocess.run([BUILD / 'tools/vestra-stat', '--list'], check=True,
                                                                   capture_output=True, text=True).stdout)
        moves = random.Random(5)
        for _ in range(12):
            key = moves.choice(('h', 'l', 'H', 'L', 'Left', 'g', 'G'))
            seconds = [int(row[0]) for row in vitals]
            here = seconds[place - 1]
            place = {'g': 1, 'G': self.last, 'h': max(place - 1, 1), 'Left': max(place - 1, 1), 'l': min(place + 1, self.last),
                     'H': max(sum(s <= here - 60 for s in seconds), 1), 'L': sum(s <= here + 60 for s in seconds)}[key]
            terminal.press(key)
            self.at(terminal, place)
            screen = terminal.screen()
            row = vitals[place - 1]
            self.assertIn(f'{row[-1]}  {int(row[1]) / 1e9:.3f} s', screen)
            for name, figure, decimals in zip(names, row[2:19], DECIMALS):
                shown = re.search(rf'(?m)^[ >]{name} +(\S+)', screen)[1]
                self.assertEqual(shown, f'{float(figure):.{decimals}f}' if figure else '-', (place, name))
            self.assertEqual(self.rows(screen), self.expected_rows(int(row[0])))

    def test_peak_shows_who_it_was_and_who_is_followed_back(self):
        cpu = [float(row[4] or 0) for row in self.vitals]
        middle = (sum(cpu) / sum(bool(row[4]) for row in self.vitals) + max(cpu)) / 2
        high = [place for place, figure in enumerate(cpu, 1) if figure > middle]
        first = next(place for place in high if place + 1 not in high)
        peak = max(range(high[0], first + 1), key=lambda place: cpu[place - 1])
        terminal = self.view()
        terminal.press('g', 'n')
        terminal.shows('Peak of cpu-total')
        self.at(terminal, peak)
        pid, name, used = re.match(r' *(\d+) (\S+) +([\d.]+)', terminal.line(13)).groups()
        terminal.press('Enter')
        terminal.shows(rf'^{pid} {re.escape(name)} +{used} % CPU')
        samples = [row for row in csv_rows('--processes', self.dump) if row[1] == pid]
        for place in range(peak - 1, peak - 4, -1):
            terminal.press('h')
            self.at(terminal, place)
            (*_, last) = (row for row in samples if row[0][:-9] == self.vitals[place - 1][0])
            terminal.shows(rf'^{pid} .* {float(last[5] or "nan"):.2f} % CPU'.replace('nan', '-'))
            terminal.shows(rf'^ +{last[10]} KiB')
        terminal.press('Escape', 'N')
        terminal.shows('No earlier peak|Peak of')

    def test_findings_are_those_of_explain_and_select_their_process(self):
        findings = sorted(json.loads(output('explain', '--json', self.dump))['findings'], key=lambda finding: finding['from_ns'])
        terminal = self.view(columns=120, rows=50)
        terminal.shows('q quit')
        terminal.press('g')
        for number, finding in enumerate(findings, 1):
            terminal.press('f')
            shown = terminal.shows(rf'^{number}/{len(findings)} ([^?]*)\?')[1]
            self.assertEqual(' '.join(shown.split()), finding['text'])
            if finding['pid']:
                self.assertEqual(re.findall(r'\x1b\[(?:0;)?7m(?:\x1b\[[34]9m)* *(\d+) ', terminal.styled()), [str(finding['pid'])])
        terminal.press('f')
        terminal.shows('No later finding')

    def test_damage_and_gaps_are_found_and_marked(self):
        hurt = bytearray(self.payload)
        at = len(hurt) // 2
        hurt[at:at + 400] = b'\xff' * 400
        write('hurt', hurt, TRAILER)
        terminal = self.view('hurt')
        self.last = len(csv_rows('hurt')) - 1
        terminal.press('g', 'd')
        terminal.shows(r'^1/\d+ Nothing was recorded for [\d.]+ s')
        spans = json_rows('damage', '--damage', 'hurt')
        for span in spans:
            terminal.press('d')
            terminal.shows(rf'{span["bytes"]} bytes are damaged at offset {span["offset"]}')
        self.assertRegex(terminal.line(2), '~')
        terminal.press('q')
        terminal.shows('ended 1, terminal as before')
        terminal = self.view('hurt')
        self.assertRegex(terminal.line(2), '~.*x')

    def test_times_are_those_of_other_commands(self):
        terminal = self.view()
        seconds = [int(row[0]) for row in self.vitals]
        for text, second in (('+10', 610), ('-30', seconds[-1] - 30), ('650.5', 650), ('22:40:00', seconds[-1] - 58),
                             ('2026-11-24 22:39:58', seconds[-1] - 60), ('1', seconds[0])):
            terminal.press('t')
            terminal.type(text)
            terminal.press('Enter')
            self.at(terminal, max(sum(s <= second for s in seconds), 1))
        terminal.press('t')
        terminal.type('soon')
        terminal.press('Enter')
        terminal.shows("'soon' is not a time")
        terminal.press('q')
        terminal.shows('ended 0')
        self.at(self.view('--at', '+10', self.dump), sum(s <= 610 for s in seconds))

    def test_processes_are_sorted_and_filtered(self):
        terminal = self.view(columns=80, rows=60)
        terminal.shows('q quit')
        self.samples = csv_rows('--processes', self.dump)
        rows = self.expected_rows(int(self.vitals[-1][0]))
        orders = {'c': lambda pid: (-float(rows[pid][1].replace('-', '-1')), pid), 'm': lambda pid: (-int(rows[pid][4]), pid),
                  'a': lambda pid: (rows[pid][0], pid), 'i': lambda pid: pid}
        for key, order in orders.items():
            terminal.press(key)
            terminal.becomes(lambda screen, order=order: list(self.rows(screen)) == sorted(rows, key=order), f'order of {key}')
        terminal.press('w')
        growths = lambda screen: [int(line.split()[-1]) for line in screen.split('\n') if re.match(r' *\d+ \S+ .* [-+\d]+$', line)]
        terminal.becomes(lambda screen: len(growths(screen)) > 1 and growths(screen) == sorted(growths(screen), reverse=True), 'growth')
        name = rows[max(rows)][0][:4]
        terminal.press('/')
        terminal.type(name.upper())
        terminal.press('Enter')
        terminal.shows(rf'of {len(rows)} processes with "{name.upper()}"')
        self.assertEqual({row[0] for row in self.rows(terminal.screen()).values()}, {row[0] for row in rows.values() if name in row[0]})

    def test_hostile_names_are_text(self):
        write('hostile', made('hostile'))
        for locale, shown in ('C.UTF-8', r'\xff\xfe\x0a\x1b[2J'), ('C', r'\xff\xfe\x0a\x1b[2J'):
            terminal = self.view('hostile', locale=locale, columns=130)
            terminal.shows(re.escape(shown))
            terminal.press('Down', 'Enter')
            terminal.shows('% CPU')
            self.assertNotRegex(terminal.screen(), '[\u2028\u202e]')

    def test_serial_console_without_colour_and_utf8(self):
        terminal = self.view(term='vt100', locale='C')
        terminal.press('f', 'F', 'Enter')
        terminal.shows('% CPU')
        self.assertTrue(terminal.screen().isascii())
        self.assertRegex(terminal.line(3), r'^ context-switches +\d+ 1/s +temperature-average +[\d.]+ C$')
        self.assertRegex(terminal.line(1), r'^>cpu-total +[\d.]+ %    [_.~=+*# -]{20}')
        self.assertNotRegex(terminal.styled(), '\x1b\\[[0-9;]*3[0-7]m')
        self.assertRegex(self.view().line(1), '[▁▂▃▄▅▆▇█]{20}')

    def test_any_size_while_it_runs(self):
        terminal = self.view()
        for columns, rows in (1, 1), (300, 100), (3, 2), (40, 8), (80, 5), (20, 60), (80, 24):
            terminal.resize(columns, rows)
            for keys in ('h', 'f'), ('Enter', '?'), ('?', 'l'), ('/', 'Escape'):
                terminal.press(*keys)
        terminal.shows('q quit')
        terminal.press('G')
        self.at(terminal, self.last)

    def test_help_names_the_keys(self):
        terminal = self.view()
        terminal.press('?')
        screen = terminal.shows('Any key: back').string
        for key in 'h l', 'H L', 'g G', '^t', 'n N', 'v V', 'f F', 'd D', 'c m w a i', '^/', 'Enter', '^p', '^q':
            self.assertRegex(screen, f'(?m){key}')
        terminal.press('x')
        terminal.shows('q quit')

    def test_every_way_out_restores_the_terminal(self):
        for way, code in ('q', 0), ('C-c', 0), (signal.SIGTERM, 0), (signal.SIGHUP, 0):
            with self.subTest(way=way):
                terminal = self.view()
                if isinstance(way, str):
                    terminal.press(way)
                else:
                    os.kill(terminal.pid_of('vestra-dump'), way)
                terminal.shows(f'ended {code}, terminal as before')

    def test_signals_end_it_while_keys_are_typed_without_a_pause(self):
        terminal = self.view()
        pid = terminal.pid_of('vestra-dump')
        terminal.tmux('pipe-pane', '-I', f'while kill -0 {pid}; do echo hhhhhhhhHHHHHGGGGGGGnnnnnn; done')
        terminal.shows('earlier peak|later peak|Peak of')
        os.kill(pid, signal.SIGTERM)
        terminal.shows('ended 0, terminal as before')

    def test_dump_that_became_shorter_says_so(self):
        terminal = self.view()
        os.truncate(self.dump, 1000)
        terminal.press('h')
        terminal.shows('the dump: it has become shorter')
        terminal.press('q')
        terminal.shows('ended 0, terminal as before')

    def test_pipe_leaves_the_keys_to_the_terminal(self):
        terminal = self.view('-', stdin=f'cat {self.dump}')
        terminal.shows('standard input')
        terminal.press('g')
        self.at(terminal, 1)
        terminal.press('q')
        terminal.shows('ended 0')

    def test_without_a_terminal_it_says_what_to_use(self):
        for path in self.dump, 'none', '-':
            result = dump_tool('view', path, stdin=subprocess.DEVNULL, start_new_session=True)
            self.assertEqual((result.returncode, result.stdout), (64, b''))
            self.assertIn(b'needs a terminal', result.stderr)
        for closed in f'<{self.dump} >&-', '<&-':
            terminal = Terminal('sh', '-c', f'{TOOL} view - {closed}')
            self.addCleanup(terminal.__exit__)
            terminal.shows('needs a terminal[^$]*ended 64, terminal as before')
        terminal = Terminal(TOOL, 'view', self.dump, term='none-such')
        self.addCleanup(terminal.__exit__)
        terminal.shows("'none-such'[^$]*ended 64, terminal as before")


if __name__ == '__main__':
    unittest.main(verbosity=2)
