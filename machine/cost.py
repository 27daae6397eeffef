"""instructions that the probe, the sampler and the daemon cost; figures for docs/performance.md, minutes"""
import re

LIMIT = 1500  # seconds until the guest must be off
# One instruction takes one nanosecond of the guest's time; the clock leaps where all CPUs idle.
# With more processors they would take turns, and each would count the others' instructions.
PROCESSORS = 1
OPTIONS = ('-icount', 'shift=0,sleep=off')
CHAIN_MIB = 10
SWITCHES = 10000  # a second
PROBE_MOST = 200  # instructions of a switch
MODULE_MOST = 1  # percent of a core


def judge(judge):
    cost = judge.numbers('cost')
    dumps = list(judge.results.glob('0*'))
    judge.expect('full_ns' in cost and len(dumps) == 1, 'not everything was measured')
    if judge.failures:
        return
    info = judge.dump('info', str(dumps[0])).stdout
    messages, length = (int(re.search(pattern, info)[1]) for pattern in (r'(\d+) messages', r'(\d+) of them payload'))
    off, on = (min(cost[f'switch_{state}_{i}'] for i in (1, 2, 3)) for state in ('off', 'on'))
    seconds = cost['usual_ns'] / 1e9
    sampler = cost['usual_sampler_ns'] / cost['usual_ns'] * 100
    probe = (on - off) * SWITCHES / 1e9 * 100
    say = judge.say
    say(f'probe: {on - off:.0f} instructions a switch ({off:.0f} without tracing, {on:.0f} with)')
    say(f'{cost["processes"]:.0f} processes, {cost["usual_switches"] / seconds:.0f} switches, '
        f'{cost["usual_samples"] / seconds:.1f} samples, {cost["usual_bytes"] / seconds / 1024:.1f} KiB a second')
    for phase, what in (('usual', 'of those that ran'), ('full', 'of all processes')):
        instructions = cost[f'{phase}_sampler_ns'] / cost[f'{phase}_samples']
        say(f'sampler: {instructions:.0f} instructions a sample {what}, {instructions * 20 / 1e7:.2f} % of a core')
    say(f'module at {SWITCHES} switches a second: {sampler + probe:.2f} % of a core')
    judge.expect(0 < on - off <= PROBE_MOST and 0 < sampler + probe <= MODULE_MOST, 'the module costs more than it may')
    for phase in ('usual', 'full'):
        read = (cost[f'{phase}_bytes']) * messages / length
        say(f'daemon, {phase} input: {cost[f"{phase}_daemon_ns"] / cost[f"{phase}_ns"] * 100:.2f} % of a core, '
            f'{cost[f"{phase}_daemon_ns"] / read:.0f} instructions a message, '
            f'{read / cost[f"{phase}_ns"] * 1e9:.0f} messages a second, {cost[f"{phase}_dropped"]:.0f} frames dropped')
    say(f'daemon: {cost["VmRSS"] / 1024:.1f} MiB resident with a full chain of {CHAIN_MIB} MiB, '
        f'{cost["RssAnon"] / 1024:.1f} of them not backed by a file')
