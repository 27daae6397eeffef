"""the daemon and the module for an hour of guest time (--minutes), load changing at random: memory, counts"""
from statistics import median

LIMIT = 4 * 3600  # seconds until the guest must be off
# The clock counts instructions, sixteen nanoseconds for each, and leaps where the processor idles: faster than real time.
# qemu 7.2 lets some of several processors starve then.
PROCESSORS = 1
OPTIONS = ('-icount', 'shift=4,sleep=off')
MEMORY = 256
COLUMNS = ('seconds', 'resident', 'files', 'threads', 'free', 'slab', 'unreclaimable', 'stacks', 'vmalloc', 'percpu')
# The most that a figure may have grown, in its unit: from the median of a tenth, when all is filled, to that of the last.
FLAT = {'resident': 256, 'files': 0, 'threads': 0, 'unreclaimable': 512, 'vmalloc': 256, 'percpu': 64}


def judge(judge):
    looks = [dict(zip(COLUMNS, map(float, line.split()))) for line in judge.text('looks').splitlines()]
    counts, last, soak = judge.numbers('counts'), judge.numbers('counts-last'), judge.numbers('soak')
    judge.expect(len(looks) >= 10 and counts, 'not enough looks at the memory')
    if judge.failures:
        return
    tenth = max(len(looks) // 10, 2)
    full = len(looks) * 2 // 5
    early, late = looks[full:full + tenth], looks[-tenth:]
    judge.say(f'{(looks[-1]["seconds"] - looks[0]["seconds"]) / 60:.1f} minutes, {len(looks)} looks, {soak.get("dumps", 0):.0f} dumps')
    for name in COLUMNS[1:]:
        before, after = (median(look[name] for look in some) for some in (early, late))
        judge.say(f'{name:14} {before:9.0f} {after:9.0f}   {min(look[name] for look in looks):.0f} to '
                  f'{max(look[name] for look in looks):.0f}')
        judge.expect(name not in FLAT or after - before <= FLAT[name], f'{name} has grown from {before:.0f} to {after:.0f}')
    judge.say('module: ' + ', '.join(f'{name} {number:.0f}' for name, number in (last or counts).items()))
    judge.frames_add_up(last or counts)
    judge.expect(counts['refused'] == 0, 'the module refused a command of the daemon')
    judge.expect(soak.get('trouble') == 0, 'the daemon did not answer each time')
