"""a dump recorded there, looked at over the serial line of 80 x 24; memory and CPU time of that; minutes"""
import re
import time

from console import Console

LIMIT = 1800  # seconds until the guest must be off
# One instruction takes one nanosecond of the guest's time, so CPU times are those of a core with a thousand million a second.
PROCESSORS = 1
OPTIONS = ('-icount', 'shift=0')
CHAIN_MIB = 10
TERMINFO = '/lib/terminfo/v/vt100'
# Keys that change the screen: seconds, minutes, first and last, peaks, findings, order, a process, help.
KEYS = 'hhhhhhhhllllllHLgnnnNNGfFmwaicgG'
PAUSE = 0.7  # seconds; keys that come while the screen is drawn might be taken together
seen = {}  # what the console showed, for the judge


def add_files(files, _):
    files.file(TERMINFO, TERMINFO)


def drive(machine):
    with Console(machine) as console:
        console.press('Enter')
        console.shows(r'^[-0-9]{10} [:0-9]{8}  live')
        console.shows('^ load +[\\d.]+')
        console.press('p')
        console.shows('paused')
        console.press('h', 'h')
        console.shows(r'paused, \d+ s before the newest')
        console.press('q')
        console.shows('ready')
        console.press('Enter')  # the dump is opened and left
        seen['last'] = console.shows('q quit').string
        console.press('q')
        console.shows('ready')
        console.press('Enter')  # and opened again for a walk through it
        console.shows('q quit')
        for key in KEYS:
            console.press(key)
            time.sleep(PAUSE)
        console.press('g', 'n')
        console.shows('Peak of cpu-total')
        seen['peak'] = console.screen()
        console.press('Enter')
        console.shows('% CPU')
        console.press('Escape', 'q')
        console.shows('ready')


def judge(judge):
    dumps = list(judge.results.glob('0*'))
    judge.expect(len(dumps) == 1 and 'peak' in seen, 'not everything was seen')
    if judge.failures:
        return
    vitals = judge.table('vitals', dumps[0])
    peak = max(range(len(vitals)), key=lambda place: float(vitals[place]['cpu_total'] or 0))
    shown = re.search(r'^[ >]cpu-total +([\d.]+)', seen['last'], re.MULTILINE)
    judge.expect(shown and shown[1] == f'{float(vitals[-1]["cpu_total"]):.2f}', f'the last second has another figure: {seen["last"]}')
    judge.expect(seen['last'].isascii() and seen['peak'].isascii(), 'the screen is not plain')
    judge.say(f'{dumps[0].stat().st_size / 2**20:.1f} MiB of {len(vitals)} s; the highest second is {peak + 1}')
    for line in seen['peak'].splitlines():
        judge.say(f'|{line:80}|')
    figures = {name: judge.numbers(name) for name in ('watch', 'open', 'walk')}
    keys = len(KEYS) + 4
    for name, what in (('watch', 'vestra-stat --watch'), ('open', 'vestra-dump view, opened and left'),
                       ('walk', f'vestra-dump view, with {keys} keys')):
        judge.expect('cpu_us' in figures[name], f'{what}: no figures')
        judge.say(f'{what}: at most {figures[name].get("resident_kib", 0) / 1024:.1f} MiB, '
                  f'{figures[name].get("cpu_us", 0) / 1000:.0f} million instructions')
    judge.say(f'a key: {(figures["walk"]["cpu_us"] - figures["open"]["cpu_us"]) / 1000 / keys:.1f} million instructions')
