"""the module without the daemon: unloaded under load, CPUs taken away, odd names, commands of any bytes"""
LIMIT = 1800  # seconds until the guest must be off
STEPS = ('loaded once', 'a buffer that is too small', 'fuzzed', 'names of any bytes', 'CPUs offline and back',
         '500 processes that end', 'loaded and unloaded')
# The memory is looked at after 20 rounds and after the last.
KIB_LEFT = 512


def judge(judge):
    steps = judge.text('steps')
    for step in STEPS:
        judge.expect(step in steps, f'not done: {step}')
    fuzz, counts = judge.numbers('fuzz'), judge.numbers('fuzz-counts')
    judge.expect(fuzz.get('refused', 0) > 0 and fuzz.get('refused') == counts.get('refused'),
                 f'the module counted other refusals than the writer: {fuzz} {counts}')
    judge.frames_add_up(judge.numbers('counts'))
    before, after = judge.numbers('memory-before'), judge.numbers('memory-after')
    judge.say('memory before and after, KiB: ' +
              ', '.join(f'{name} {before[name]:.0f} {after.get(name, 0):.0f}' for name in before))
    for name in ('Percpu', 'VmallocUsed', 'KernelStack', 'Slab'):
        judge.expect(after.get(name, 1e9) - before.get(name, 0) <= KIB_LEFT, f'{name} has grown')
