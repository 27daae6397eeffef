"""the module without the daemon: half a minute of its figures beside those of /proc, six processors on four cores, swap"""
from record import CORES, TICKS, Snapshot, at, grown, judge_processes, judge_vitals

LIMIT = 900  # seconds until the guest must be off
PROCESSORS = 6
MEMORY = 256
SPAN = 28  # seconds that are compared, at least
LOOKS = 5  # in these, at least; a machine that is too busy for them is no measure
SLACK = 15  # ticks: /proc rounds each time of each processor
SWAP_KIB = 20 << 10  # of one process
LATE = 5  # ticks: a process is looked at a little after the sample's time


def numbers(data, place, count):
    values = []
    for _ in range(count):
        value = shift = 0
        while data[place] >= 0x80:
            value |= (data[place] & 0x7f) << shift
            place, shift = place + 1, shift + 7
        values.append(value | data[place] << shift)
        place += 1
    return values, place


def core_counters(data):
    """Of each switch frame's first message: its moment, and user, system, idle, temperature and I/O wait time of each core."""
    place = 0
    while place < len(data):
        frame = data[place + 4:place + 4 + int.from_bytes(data[place:place + 4], 'little')]
        place += 4 + len(frame)
        if len(frame) > 2 and frame[0] == 7:
            head, name = numbers(frame, 2, 5)  # message type, time, parent, process id, length of the name
            figures, _ = numbers(frame, name + head[4], 8 + 5 * CORES)
            yield head[1] / 1e9, [figures[8 + 5 * core:][:5] for core in range(CORES)]


def judge_cores(judge, counters, snapshots):
    """Processors and cores lie on a line that is CORES * PROCESSORS long."""
    begin, end = snapshots[0].moments['stat'], snapshots[-1].moments['stat']
    for core in range(CORES):
        shares = [max(0, min((cpu + 1) * CORES, (core + 1) * PROCESSORS) - max(cpu * CORES, core * PROCESSORS)) / PROCESSORS
                  for cpu in range(PROCESSORS)]
        for what, columns, fields in (('busy', (0, 1), (0, 1, 2, 5, 6)), ('idle', (2,), (3,)), ('I/O wait', (4,), (4,))):
            points = [(moment, sum(cores[core][column] for column in columns)) for moment, cores in counters]
            in_kernel = sum(share * (snapshots[-1].processors[cpu][field] - snapshots[0].processors[cpu][field])
                            for cpu, share in enumerate(shares) for field in fields)
            judge.close(f'core {core}: {what} ticks', grown(points, begin, end), in_kernel, 0.01, SLACK)


def judge(judge):
    counts = judge.numbers('counts')
    judge.frames_add_up(counts)
    blocks = judge.results / 'blocks'
    judge.clean(blocks)
    snapshots = [Snapshot(path) for path in sorted((judge.results / 'proc').iterdir())]
    begin, end = snapshots[0].moments['stat'], snapshots[-1].moments['stat']
    judge.say(f'compared over {end - begin:.1f} s, {len(snapshots)} looks at /proc')
    judge.expect(end - begin >= SPAN and len(snapshots) >= LOOKS, 'too short, or too few looks')
    if judge.failures:
        return
    vitals = judge.table('vitals', blocks)
    judge_vitals(judge, vitals, snapshots, PROCESSORS)
    judge_cores(judge, list(core_counters(blocks.read_bytes())), snapshots)
    counted, in_kernel = (grown([(snapshot.moments['stat'], value(snapshot)) for snapshot in snapshots], begin, end)
                          for value in (lambda snapshot: snapshot.counted, lambda snapshot: snapshot.switches))
    judge.close('context switches', counted, in_kernel, 0.01, 0)
    rows = judge.table('processes', blocks)
    samples = judge_processes(judge, rows, snapshots)
    if judge.failures:
        return
    judge_restless(judge, samples[judge.text('restless').strip()], sorted({float(row['time_ns']) / 1e9 for row in rows}))
    judge_swap(judge, samples[judge.text('swapped').strip()], vitals, snapshots)


def judge_restless(judge, samples, moments):
    """Where a process is missing in a sample, it did not run before it: all that it gained came after."""
    before = dict(zip(moments[1:], moments))
    missing = wrong = 0
    for (t0, row0), (t1, row1) in zip(samples, samples[1:]):
        gained = sum(int(row1[name]) - int(row0[name]) for name in ('user_ticks', 'system_ticks'))
        missing += before[t1] > t0
        wrong += before[t1] > t0 and gained > TICKS * (t1 - before[t1]) + LATE
    judge.say(f'the restless process is in {len(samples)} of {len(moments)} samples, is missing {missing} times, wrongly {wrong} times')
    judge.expect(len(samples) > 100 and wrong == 0, 'a process that ran is missing in samples')


def judge_swap(judge, samples, vitals, snapshots):
    pid = samples[0][1]['pid']
    first, last = snapshots[0], snapshots[-1]
    swapped = [(moment, int(row['swap_kib'])) for moment, row in samples]
    read = [(moment, int(row['read_kib'])) for moment, row in samples]
    end = last.moments[f'{pid}/status']
    judge.close('swapped KiB', at(swapped, end), int(last.of_process[pid]['VmSwap']), 0.01, 50)
    judge.expect(at(swapped, end) > SWAP_KIB * 0.9, 'hardly anything is swapped out')
    in_kernel = (int(last.of_process[pid]['read_bytes']) - int(first.of_process[pid]['read_bytes'])) / 1024
    judge.close('KiB read from the disk', grown(read, first.moments[f'{pid}/io'], last.moments[f'{pid}/io']), in_kernel, 0.01, 50)
    judge.expect(in_kernel > 0, 'nothing was read')
    used = 100 - 100 * last.kib['SwapFree'] / last.kib['SwapTotal']
    judge.close('swap used %', float(vitals[-2]['swap_used']), used, 0.01, 0.2)
