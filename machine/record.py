"""the daemon loads the module, records, answers, dumps and stops; its figures are compared with /proc"""
import json
import re
from itertools import combinations
from pathlib import Path
from statistics import median

LIMIT = 900  # seconds until the guest must be off; a busy machine may need that
TICKS = 250  # a second on each core, in the trace
USER_HZ = 100  # in /proc
CORES = 4


class Snapshot:
    """What the guest's /proc said, each file at its own moment, in seconds. CPU times are in ticks of the trace."""

    def __init__(self, path):
        self.moments, self.took = {}, {}  # by the name of the file in /proc, for a process by its id
        self.names, self.ticks, self.resident = {}, {}, {}  # by the process's id
        self.of_process = {}  # by the process's id: the first word of each line of its status and io
        pieces = re.split(r'(?m)^(/\S+) (\d+)\n', Path(path).read_text('latin1'))[1:]
        for name, before, text, _, after, _ in zip(*(pieces[i::6] for i in range(6))):
            name = name.removeprefix('/proc/')
            process = re.match(r'(\d+) \((.*)\) \S (.*)', text)
            if process:
                name = process[1]
                self.names[name] = process[2]
                # utime, stime and resident pages are the fields 14, 15 and 24; these begin with field 4.
                words = process[3].split()
                self.ticks[name] = (int(words[10]) + int(words[11])) * TICKS / USER_HZ
                self.resident[name] = int(words[20]) * 4
            else:
                self._read(name, {line.split()[0]: line.split()[1:] for line in text.splitlines()})
            self.moments[name] = (int(before) + int(after)) / 2e9
            self.took[name] = (int(after) - int(before)) / 1e9

    def _read(self, name, fields):
        if name == 'stat':
            user, nice, system, _, _, irq, softirq = (int(field) * TICKS / USER_HZ for field in fields['cpu'][:7])
            self.system = system + irq + softirq
            self.total = user + nice + self.system
            # Of each processor: user, nice, system, idle, I/O wait, and times for interrupts.
            self.processors = [[int(field) * TICKS / USER_HZ for field in fields[word][:7]] for word in sorted(fields)
                               if re.fullmatch(r'cpu\d', word)]
            self.switches = int(fields['ctxt'][0])
        elif name.endswith('counts/switches'):
            self.counted = int(next(iter(fields)))
        elif '/' in name:
            self.of_process.setdefault(name.split('/')[0], {}).update((line[:-1], values[0]) for line, values in fields.items() if values)
        else:
            self.kib = {name[:-1]: int(values[0]) for name, values in fields.items()}


def at(points, moment):
    """The value of a line through (moment, value) points, which must begin and end around the moment."""
    for (t0, v0), (t1, v1) in zip(points, points[1:]):
        if t0 <= moment <= t1:
            return v0 + (v1 - v0) * (moment - t0) / (t1 - t0) if t1 > t0 else v0
    raise ValueError(f'nothing is known of {moment}')


def grown(points, begin, end):
    return at(points, end) - at(points, begin)


def drift(points):
    """What (moment, difference) points gain from the first to the last, by the median slope of all pairs: the host may stop an emulated
    processor in the middle of a sample or of a look, which spoils one point, not the line through the others."""
    slope = median((d1 - d0) / (t1 - t0) for (t0, d0), (t1, d1) in combinations(points, 2))
    return slope * (points[-1][0] - points[0][0])


def in_stat(snapshots, value):
    return [(snapshot.moments['stat'], value(snapshot)) for snapshot in snapshots]


def judge_processes(judge, rows, snapshots):
    """For each process of whose stat there are looks. Returns its samples: moments and rows."""
    all_samples = {}
    first, last = snapshots[0], snapshots[-1]
    for pid, name in last.names.items():
        # Both times in /proc are rounded down, and a process may have run all the while that they were read.
        slack = 2 * TICKS / USER_HZ + 1 + TICKS * (first.took[pid] + last.took[pid]) / 2
        samples = all_samples[pid] = [(float(row['time_ns']) / 1e9, row) for row in rows if row['pid'] == pid]
        judge.expect(samples, f'no sample of {name}')
        if not samples:
            continue
        ticks = [(moment, int(row['user_ticks']) + int(row['system_ticks'])) for moment, row in samples]
        resident = [(moment, int(row['rss_kib'])) for moment, row in samples]
        growth = last.ticks[pid] - first.ticks[pid]
        differences = [(look.moments[pid], at(ticks, look.moments[pid]) - look.ticks[pid]) for look in snapshots]
        judge.close(f'{name}: CPU ticks', growth + drift(differences), growth, 0.01, slack)
        judge.close(f'{name}: resident KiB', at(resident, last.moments[pid]), last.resident[pid], 0.01, 300)
    return all_samples


def judge_vitals(judge, rows, snapshots, processors=CORES):
    rows = [row for row in rows
            if snapshots[0].moments['stat'] + 1 < int(row['second']) < snapshots[-1].moments['stat'] - 1 and row['cpu_total']]
    judge.expect(len(rows) >= 3, 'fewer than three whole seconds of vitals')
    if not rows:
        return
    # A second's percentages end with its last sample, and begin with that of the second before. A machine that the host stops for seconds
    # has no sample in some; what the kernel counted in these does not belong into the comparison.
    seconds = [(int(row['second']) - 0.05, int(row['second']) + 0.95) for row in rows]
    inside = [snapshot for snapshot in snapshots if seconds[0][0] <= snapshot.moments['meminfo'] <= seconds[-1][1]]
    judge.expect(inside, 'no look at /proc in the seconds that are compared')
    if not inside:
        return
    percent = 100 / (TICKS * processors)

    def average(column):
        return sum(float(row[column]) for row in rows) / len(rows)

    def in_kernel(value):
        points = in_stat(snapshots, value)
        return sum(grown(points, *second) for second in seconds) / len(seconds)

    for column in ('total', 'system'):
        growth = in_kernel(lambda s, column=column: getattr(s, column))
        judge.close(f'CPU {column} %', average(f'cpu_{column}'), growth * percent, 0.01, 1.5)
    judge.close('context switches a second', average('context_switches'), in_kernel(lambda s: s.switches), 0.1, 50)
    for column, name in (('memory_free', 'MemFree'), ('memory_available', 'MemAvailable'), ('page_cache', 'Cached')):
        judge.close(f'{name} KiB', average(column), sum(snapshot.kib[name] for snapshot in inside) / len(inside), 0.01, 300)


def judge_dump(judge, dump):
    info = judge.dump('info', str(dump))
    judge.expect(info.returncode == 0, f'the dump is not clean:\n{info.stdout}{info.stderr}')
    rows = judge.table('processes', dump)
    judge.expect(rows, 'the dump has no processes')
    if not rows:
        return
    oldest, newest = (float(rows[i]['time_ns']) / 1e9 for i in (0, -1))
    snapshots = [Snapshot(path) for path in sorted((judge.results / 'proc').iterdir())]
    snapshots = [snapshot for snapshot in snapshots if all(oldest + 0.1 < moment < newest - 0.1 for moment in snapshot.moments.values())]
    span = snapshots[-1].moments['stat'] - snapshots[0].moments['stat'] if snapshots else 0
    judge.expect(span > 3, f'the recording and the looks at /proc have only {span:.1f} s in common')
    if span > 3:
        judge.say(f'compared over {span:.1f} s, {len(snapshots)} looks at /proc')
        judge_processes(judge, rows, snapshots)
        judge_vitals(judge, judge.table('vitals', dump), snapshots)


def judge(judge):
    log = judge.text('vestrad.log')
    judge.expect('PS_Insmod command' in log and 'PS_Insmod error' not in log, 'the daemon did not load the module')
    left = [name for name in judge.text('threads-left').split() if name.startswith('QX')]
    judge.expect(left == ['QXProcess'], f'after SIGRTMIN+6 these threads were left: {" ".join(left)}')
    judge.expect(judge.text('unloaded').strip() == '0', 'the module was not unloaded')
    counts = judge.numbers('counts')
    judge.say('module: ' + ', '.join(f'{name} {number:.0f}' for name, number in counts.items()))
    judge.expect(counts.get('refused') == 0, 'the module refused a command of the daemon')
    judge.frames_add_up(counts)
    vitals = json.loads(judge.text('stat.json') or '{}').get('vitals', {})
    judge.expect((vitals.get('cpu-total', {}).get('average') or 0) > 0, 'the client got no figures')
    judge.say('daemon: ' + ' '.join(judge.text('status').split()))
    dumps = list(judge.results.glob('0*'))
    judge.expect(len(dumps) == 1, f'{len(dumps)} dumps instead of one')
    for dump in dumps:
        judge_dump(judge, dump)
