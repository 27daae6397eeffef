"""the module without the daemon: unloaded under load, CPUs taken away, odd names, commands of any bytes; minutes"""
from collections import defaultdict

# Seconds until the guest must be off. Each unloading flushes an ARM processor's translations, page by page, from the modules'
# addresses to those of vmalloc, which lie below and above all memory. qemu stops all its threads for each page. The less memory,
# the fewer pages.
LIMIT = 3600
MEMORY = 192
PARAMETERS = 'init_on_free=1'  # memory is cleared when it is freed, so that its use shows: the kernel panics at a list that is broken
STEPS = ('absurd buffers', 'loaded once', 'a buffer that is too small', 'fuzzed', 'unloaded while it is polled', 'names of any bytes',
         'CPUs offline and back', '500 processes that end', 'loaded and unloaded')
# What the kernel holds is looked at after 20 rounds and after the last.
KIB_LEFT = 512
OBJECTS_LEFT = 0.1  # for each round, in one slab cache


def judge_fuzz(judge):
    """The module counted what its writer and its two readers counted."""
    before, after = judge.numbers('counts-before-fuzz'), judge.numbers('counts-fuzz')
    judge.frames_add_up(after)
    fuzz, readers = judge.numbers('fuzz'), [judge.numbers(f'read-{i}') for i in (1, 2)]
    expected = {name: sum(reader.get(name, 0) for reader in readers) for name in ('frames_read', 'blocks')}
    expected['refused'] = fuzz.get('refused', 0)
    expected['writes'] = fuzz.get('taken', 0) + fuzz.get('refused', 0) + 1  # tracing off, at the end
    counted = {name: after.get(name, 0) - before.get(name, 0) for name in expected}
    judge.say(f'fuzzed: {counted}; each reader: {[reader.get("frames_read", 0) for reader in readers]} frames')
    judge.expect(counted == expected and all(expected.values()), f'the module counted {counted}, its writer and readers {expected}')


def judge_names(judge):
    blocks = judge.results / 'names'
    judge.clean(blocks)
    names = defaultdict(set)
    for row in judge.table('processes', blocks):
        names[row['pid']].add(row['name'])
    judge.expect(max(map(len, names.values()), default=0) > 2, 'no process had several names')


def judge(judge):
    steps = judge.text('steps')
    for step in STEPS:
        judge.expect(step in steps, f'not done: {step}')
    judge.expect(not judge.text('trouble'), judge.text('trouble'))
    judge_fuzz(judge)
    judge_names(judge)
    judge.frames_add_up(judge.numbers('counts'))
    before, after = judge.numbers('memory-before'), judge.numbers('memory-after')
    judge.say('KiB before and after: ' + ', '.join(f'{name} {before[name]:.0f} {after.get(name, 0):.0f}' for name in before))
    for name in ('Percpu', 'VmallocUsed', 'KernelStack', 'Slab'):
        judge.expect(after.get(name, 1e9) - before.get(name, 0) <= KIB_LEFT, f'{name} has grown')
    if judge.failures:
        return
    rounds = max(int(words) for line in steps.splitlines() if line.startswith('loaded and') for words in line.split()[3:4]) - 20
    before, after = judge.numbers('slabs-before'), judge.numbers('slabs-after')
    grown = sorted(((after.get(name, 0) - before[name], name) for name in before), reverse=True)
    judge.say(f'objects more after {rounds} rounds: ' + ', '.join(f'{name} {more:.0f}' for more, name in grown[:3]))
    judge.expect(grown and grown[0][0] <= OBJECTS_LEFT * rounds, f'{grown[:1]} more objects after {rounds} rounds')
