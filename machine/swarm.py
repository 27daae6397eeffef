"""as many processes as there are process ids or as have room, sampled; minutes"""
from collections import Counter

LIMIT = 1800  # seconds until the guest must be off
MEMORY = 2560
# Several processors that are emulated would wait for each other most of the time. The clock counts instructions.
PROCESSORS = 1
OPTIONS = ('-icount', 'shift=2,sleep=off')
PARAMETERS = 'vmalloc=512M'  # on ARM, the stacks in the kernel need more than the usual 240
WANTED = 30000  # of 32,768 ids, some are the kernel's; on ARM, the kernel's own memory is full first


def judge(judge):
    made = judge.numbers('swarm-made').get('made', 0)
    judge.say('swarm: ' + judge.text('swarm').strip() + '; ' + ' '.join(judge.text('free').split()))
    judge.expect(made >= WANTED, f'only {made:.0f} processes could be made')
    counts = judge.numbers('counts')
    judge.frames_add_up(counts)
    blocks = judge.results / 'blocks'
    judge.clean(blocks)
    frames = len(judge.table('frames', blocks))
    judge.expect(frames == counts.get('frames_read'), f'{frames} frames were read, counted: {counts}')
    rows = judge.table('processes', blocks)
    samples = Counter(row['time_ns'] for row in rows)
    most = max(samples.values(), default=0)
    pids = len({row['pid'] for row in rows})
    cost = judge.numbers('cost')
    judge.say(f'{len(samples)} samples were read; the largest has {most} processes; {pids} process ids')
    judge.say(f'{cost.get("samples", 0):.0f} samples in {cost.get("seconds", 0):.0f} s, '
              f'{cost.get("sampler_ns", 0) / 1e7 / max(cost.get("seconds", 0), 1):.1f} % of a processor')
    judge.expect(most >= made and pids >= made, 'a sample does not have all processes')
    judge.expect(cost.get('sampler_ns', 1e18) <= cost.get('seconds', 0) * 1e9 * 0.12, 'the sampler takes more than its tenth')
    judge.expect(judge.text('ended').strip() == '0', 'the module could not be unloaded with all those processes')
