#!/usr/bin/env python3
"""vestra-stat as a user has it, with a daemon that has been given its last second."""
import csv
import json
import math
import os
import re
import shutil
import signal
import struct
import subprocess
import sys
from pathlib import Path

from set_env import (DUMP, NO_DAEMON, OK, ROOT, SET, STAT, STATE, TIMEOUT, UNANSWERED, USAGE, Segment, SetTest, main, remote,
                     run, text_of)

sys.path.insert(0, str(ROOT / 'tests'))
from terminal import Terminal  # noqa: E402

FIGURES = ('maximum', 'minimum', 'average', 'variance')


def stat(*arguments):
    return run(STAT, *arguments)


class VestraStat(SetTest):
    def start_with_a_ring(self):
        self.start()
        self.fill_ring(4)

    def test_shows_what_the_daemon_answers(self):
        self.start_with_a_ring()
        shown = stat('--json', '--window', 30).stdout
        answers = {vital: figures for vital, _, *figures, answered, _ in
                   struct.iter_unpack('<ii4dii', Segment.PATH.read_bytes()[Segment.REQUESTS:Segment.RECORD])}
        table = [line.split() for line in stat('--window', 30).stdout.splitlines()]
        self.assertEqual((shown.count('\n'), len(table), sorted(answers)), (1, 1 + 17, list(range(17))))
        for name, vital in json.loads(shown)['vitals'].items():
            line = table[1 + vital['type']]
            self.assertEqual(line[:2], [str(vital['type']), name])
            for figure, in_table, value in zip(FIGURES, line[-4:], answers[vital['type']]):
                with self.subTest(name=name, figure=figure):
                    if math.isnan(value):
                        self.assertEqual((in_table, vital[figure]), ('-', None))
                    else:
                        self.assertEqual(vital[figure], value)
                        self.assertAlmostEqual(float(in_table), value, delta=0.5 + 0.001 * abs(value))

    def test_vitals_come_in_the_order_asked_each_once(self):
        self.start_with_a_ring()
        lines = [line.split() for line in stat('--window', 0, '16', 'cpu', 'cpu-user').stdout.splitlines()[1:]]
        self.assertEqual([line[1] for line in lines], ['memory-available', 'cpu-total', 'cpu-system', 'cpu-user'])
        self.assertEqual(len(lines[0]), 4, 'number, name, unit, one figure')

    def test_tells_its_failures_apart(self):
        gone = stat()
        self.assertEqual((gone.returncode, gone.stdout), (NO_DAEMON, ''))
        self.assertTrue(gone.stderr.startswith('vestra-stat: no daemon is running\n'))
        for wrong in ('--window 181', '--window -1', '17', 'cpux', '--watch 0', '--count 3', '--frob'):
            refused = stat(*wrong.split())
            self.assertEqual(refused.returncode, USAGE, wrong)
            self.assertTrue(refused.stderr, wrong)
        self.start_with_a_ring()
        self.pause()
        slow = stat('--timeout', 0.2)
        self.assertEqual(slow.returncode, TIMEOUT)
        self.assertIn('did not answer in time, 200 ms', slow.stderr)

    def test_vital_that_is_left_unanswered_is_reported(self):
        self.start_with_a_ring()
        self.pause()
        with subprocess.Popen([STAT, 'cpu-total'], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE) as asking:
            self.becomes(Segment().posted)
            Segment().write(Segment.REQUESTS, struct.pack('<i', 5))  # somebody makes another question of it
            self.resume()
            self.assertEqual(asking.wait(), UNANSWERED)
            self.assertIn(b'left a vital unanswered', asking.stderr.read())

    def test_watch_goes_on_over_a_restart(self):
        self.start_with_a_ring()
        out, err = Path('/tmp/watch.out'), Path('/tmp/watch.err')
        lines = lambda: text_of(out).count('\n')
        with open(out, 'wb') as stdout, open(err, 'wb') as stderr, \
                subprocess.Popen([STAT, '--watch', '0.1', '--json', 'cpu'], stdout=stdout, stderr=stderr) as watching:
            self.becomes(lambda: lines() >= 2)
            self.end()
            self.becomes(lambda: text_of(err) == 'vestra-stat: no daemon is running; still asking\n')
            before = lines()
            self.start()
            self.becomes(lambda: lines() >= before + 2)
            self.assertEqual(text_of(err), 'vestra-stat: no daemon is running; still asking\n'
                                           'vestra-stat: the daemon answers again\n')
            watching.send_signal(signal.SIGINT)
            self.assertEqual(watching.wait(), OK)

    def test_name_after_watch_is_no_number_of_seconds(self):
        self.start_with_a_ring()
        twice = stat('--watch', 'cpu', '--count', 2)
        self.assertEqual((twice.returncode, twice.stdout.count('cpu-total')), (OK, 2))

    def watch(self, *words, **more):
        terminal = Terminal(STAT, '--watch', *words, **more)
        self.addCleanup(terminal.__exit__)
        return terminal

    def test_watch_on_a_terminal_has_the_history_and_pauses(self):
        self.start_with_a_ring()
        history = list(csv.DictReader(stat('--history', '--csv').stdout.splitlines()))
        table = {line.split()[1]: line.split()[-4:-1] for line in stat().stdout.splitlines()[1:]}
        close = lambda shown, exact: self.assertAlmostEqual(float(shown), float(exact), delta=0.005 + 0.001 * abs(float(exact)))
        for term, locale, levels in ('xterm', 'C.UTF-8', '[▁▂▃▄▅▆▇█]'), ('vt100', 'C', '[-_.~=+*#]'):
            with self.subTest(term=term):
                terminal = self.watch(columns=100, term=term, locale=locale)
                line = terminal.shows(rf'^ memory-used +([\d.]+) % +([\d.]+) +([\d.]+) +([\d.]+)  .*{levels}')
                close(line[1], history[-1]['memory_used'])
                for shown, exact in zip(line.groups()[1:], table['memory-used']):
                    close(shown, exact)
                terminal.shows('^[-0-9]{10} [:0-9]{8}  live')
                terminal.press('h', 'h')
                terminal.shows(r'paused, \d+ s before the newest')
                close(re.search(r' memory-used +([\d.]+)', terminal.screen())[1], history[-3]['memory_used'])
                terminal.press('p')
                terminal.shows('  live  ')
                terminal.press('q')
                terminal.shows('ended 0, terminal as before')

    def test_watch_on_a_terminal_keeps_the_past_of_a_daemon_that_is_killed(self):
        self.start_with_a_ring()
        terminal = self.watch('0.1', 'memory', 'cpu', '--window', 0)
        shown = terminal.shows(r'^>cpu-total +[\d.]+ %')[0]
        self.end()
        terminal.shows('no daemon is running; still asking')
        self.assertIn(shown, terminal.screen())
        terminal.press('p', 'G')
        self.start()
        terminal.shows('the daemon has no figures yet')
        terminal.press('G', 'h', 'n', 'p')
        os.kill(terminal.pid_of('vestra-stat'), signal.SIGTERM)
        terminal.shows('ended 0, terminal as before')

    def test_watch_on_a_terminal_quits_while_the_daemon_does_not_answer(self):
        self.start_with_a_ring()
        self.pause()
        terminal = self.watch('--timeout', 60)
        terminal.shows('asking the daemon')
        terminal.press('C-c')
        terminal.shows('ended 0, terminal as before')

    def test_watch_counts_questions_on_any_terminal(self):
        self.watch('0.1', '--count', 3).shows(f'ended {NO_DAEMON}, terminal as before')
        self.start_with_a_ring()
        self.watch('0.1', '--count', 3).shows('ended 0, terminal as before')
        plain = self.watch('0.1', '--count', 2, 'load', term='dumb')
        plain.shows('ended 0')
        self.assertEqual(len(re.findall(r'(?m)^13  load', plain.screen())), 2)

    def check_metrics(self, text):
        promtool = shutil.which('promtool') or ROOT / 'build/promtool'
        if not os.access(promtool, os.X_OK):
            self.skipTest('no promtool: "scripts/install-deps check" puts it into build/')
        checked = run(promtool, 'check', 'metrics', input=text)
        self.assertEqual((checked.returncode, checked.stdout, checked.stderr), (0, '', ''))

    def test_metrics_are_current_values_in_base_units(self):
        self.start_with_a_ring()
        shown = stat('--openmetrics').stdout
        metrics = dict(re.findall(r'(?m)^(vestra_\S+) (\S+)$', shown))
        vitals = {name: vital['average'] for name, vital in json.loads(stat('--json', '--window', 0).stdout)['vitals'].items()}
        for vital, metric, scale in (('context-switches', 'context_switches_per_second', 1), ('load', 'load', 1),
                                     ('cpu-total', 'cpu_total_ratio', 0.01), ('memory-available', 'memory_available_bytes', 1024),
                                     ('temperature-core2', 'temperature_core_celsius{core="2"}', 1)):
            self.assertAlmostEqual(float(metrics[f'vestra_{metric}']), vitals[vital] * scale, msg=vital)
        for family, count in ('temperature_core_celsius', 4), ('memory_free_bytes', 1):
            lines = shown.split(f'# TYPE vestra_{family} gauge\n')[1].splitlines()
            self.assertEqual(lines[0], f"# UNIT vestra_{family} {family.rsplit('_', 1)[1]}")
            self.assertEqual([lines[1].split()[1], lines[1 + count].split()[0].split('{')[0]], ['HELP', f'vestra_{family}'])
        self.assertTrue(shown.endswith('\n# EOF\n'))
        self.check_metrics(shown)

    def test_vitals_without_samples_are_no_metrics(self):
        (STATE / 'module/inject').write_text('empty 1000000000\n')
        self.start()
        self.assertEqual(stat('--openmetrics').stdout, '# EOF\n')
        self.assertEqual(stat('--history', '--csv', 'cpu-total').stdout, 'age,cpu_total\n')

    def completed(self, shell, *words):
        """What the shell offers for the last word. zsh's functions that show it are replaced; they need a terminal."""
        file, script = {
            'bash': ('vestra.bash', 'source $0; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _vestra; printf "%s\\n" "${COMPREPLY[@]}"'),
            'zsh': ('_vestra', '_describe() { print -l -- "${(@)found%%:*}"; }; _files() { print -l *(N); }; words=("$@"); '
                               'CURRENT=$#; PREFIX=$words[-1]; source $0'),
            'fish': ('vestra.fish', 'source $argv[1]; complete -C "$argv[2..-1]"')}[shell]
        shown = run(shell, '-c', script, ROOT / 'packaging/completion' / file, *words, cwd='/tmp/fault',
                    env={'PATH': f'{STAT.parent}:{SET.parent}:/usr/bin:/bin', 'HOME': '/tmp', 'XDG_RUNTIME_DIR': '/tmp'})
        return sorted(line.split('\t')[0] for line in shown.stdout.splitlines())

    def test_shells_complete_what_the_programs_know(self):
        Path('/tmp/fault/a file').touch()
        vitals = re.findall(r'(?m)^ *\d+\*? +(\S+)', stat('--list').stdout)
        rows = (('vestra-stat --timeout 3 cpu-', ['cpu-system', 'cpu-total', 'cpu-user']), ('vestra-stat --window ', []),
                ('vestra-stat ', sorted(vitals)), ('vestra-dump cs', ['csv']), ('vestra-dump info ', ['a file']),
                ('vestra-dump csv --epoch n', ['name', 'none']), ('vestra-dump cut --from ', []),
                ('vestra-set run --source ', ['host', 'replay', 'synthetic']), ('vestra-set run --source replay ', ['a file']),
                ('vestra-set module stall o', ['off', 'on']), ('vestra-set usb plug --na', ['--name']),
                ('vestra-set sandbox --node -- ', ['a file']))
        for shell in 'bash', 'zsh', 'fish':
            for line, words in rows:
                with self.subTest(shell=shell, line=line):
                    if not shutil.which(shell):
                        self.skipTest(f'no {shell}: "scripts/install-deps check" installs it')
                    offered = [word.replace('\\', '') for word in self.completed(shell, *line.split(' '))]
                    self.assertEqual([word for word in offered if word], words)

    def test_completion_offers_the_options_that_help_lists(self):
        for command in ([STAT], [DUMP], [DUMP, 'csv'], [DUMP, 'cut'], [SET, 'run'], [SET, 'module', 'inject']):
            helped = re.findall(r'(?m)^ +(?:-\w,)?(--[\w-]+)', run(*command, '--help').stdout)
            offered = run(command[0], '--complete', *command[1:], '--').stdout
            self.assertLessEqual(set(helped), {line.split('\t')[0] for line in offered.splitlines()}, command)
            self.assertIn('--help', helped)


class VestraStatHistory(SetTest):
    def test_history_is_what_was_recorded(self):
        self.configure(max_file_size=10)
        self.start()
        self.fill_ring(20)
        self.assertEqual(remote('robust', '/tmp/fault', '/usr/bin/procd', 5).returncode, 0)
        self.becomes(lambda: list(Path('/tmp/fault').glob('*_5_procd_*')))
        dump, = Path('/tmp/fault').glob('*_5_procd_*')
        recorded = list(csv.DictReader(run(DUMP, 'csv', dump).stdout.splitlines()))
        shown = list(csv.DictReader(stat('--history', '--csv').stdout.splitlines()))
        self.assertGreater(len(shown), 150)
        vitals = list(shown[0])[1:]
        most = {name: max(float(line[name] or 0) for line in recorded) for name in vitals}
        # The daemon computes the shares of the two oldest seconds otherwise than of those before which there is one, and
        # those of the newest again when it is over.
        for second, line in list(zip(reversed(shown[2:]), reversed(recorded)))[1:]:
            for name in vitals:
                # Without a sample, the daemon keeps what was there before.
                if line[name]:
                    self.assertAlmostEqual(float(second[name]), float(line[name]), delta=4.4e-5 * most[name],
                                           msg=(name, second['age']))
        as_json = json.loads(stat('--history', '--json', '16', '2').stdout)['seconds']
        self.assertEqual([(line['age'], line['memory-available'], line['cpu-total']) for line in as_json],
                         [(int(line['age']), float(line['memory_available']), float(line['cpu_total'])) for line in shown])


if __name__ == '__main__':
    main({'VestraStat': '--node --source synthetic', 'VestraStatHistory': '--node --source synthetic --step 10'})
