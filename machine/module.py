"""the module without the daemon: unloaded under load, CPUs taken away, odd names, commands of any bytes; minutes"""
# Seconds until the guest must be off. Each unloading flushes an ARM processor's translations, page by page, from the modules'
# addresses to those of vmalloc, which lie below and above all memory. qemu stops all its threads for each page. The less memory,
# the fewer pages.
LIMIT = 3600
MEMORY = 160
STEPS = ('loaded once', 'a buffer that is too small', 'fuzzed', 'names of any bytes', 'CPUs offline and back',
         '500 processes that end', 'loaded and unloaded')
# What the kernel holds is looked at after 20 rounds and after the last.
KIB_LEFT = 512
OBJECTS_LEFT = 0.5  # for each round, in one slab cache


def judge(judge):
    steps = judge.text('steps')
    for step in STEPS:
        judge.expect(step in steps, f'not done: {step}')
    fuzz, counts = judge.numbers('fuzz'), judge.numbers('fuzz-counts')
    judge.expect(fuzz.get('refused', 0) > 0 and fuzz.get('refused') == counts.get('refused'),
                 f'the module counted other refusals than the writer: {fuzz} {counts}')
    judge.frames_add_up(judge.numbers('counts'))
    before, after = judge.numbers('memory-before'), judge.numbers('memory-after')
    judge.say('KiB before and after: ' + ', '.join(f'{name} {before[name]:.0f} {after.get(name, 0):.0f}' for name in before))
    for name in ('Percpu', 'VmallocUsed', 'KernelStack', 'Slab'):
        judge.expect(after.get(name, 1e9) - before.get(name, 0) <= KIB_LEFT, f'{name} has grown')
    rounds = max(int(words) for line in steps.splitlines() if line.startswith('loaded and') for words in line.split()[3:4]) - 20
    before, after = judge.numbers('slabs-before'), judge.numbers('slabs-after')
    grown = sorted(((after.get(name, 0) - before[name], name) for name in before), reverse=True)
    judge.say(f'objects more after {rounds} rounds: ' + ', '.join(f'{name} {more:.0f}' for more, name in grown[:3]))
    judge.expect(grown and grown[0][0] <= OBJECTS_LEFT * rounds, f'{grown[:1]} more objects after {rounds} rounds')
