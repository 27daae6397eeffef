"""what user emulation leaves out of the tests, on a real 32-bit ARM kernel: hours on a busy machine (--only)"""
import re

LIMIT = 4 * 3600  # seconds until the guest must be off
ARCHITECTURES = ('armhf',)  # elsewhere nothing is left out
# The clock counts instructions, two nanoseconds for each: a test has the same time however busy this machine is.
# qemu 7.2 lets some of several processors starve then.
PROCESSORS = 1
OPTIONS = ('-icount', 'shift=1,sleep=off')
MEMORY = 1024
# Test programs that are not run there, and why.
EXPLAINED = {'report_browser_test.py': 'needs a browser, and tests the page, whose bytes the test of the sample dumps compares'}
ORDER = ('client_test', 'linux_test', 'python_test', 'e2e/', 'set_launcher')  # the rest needs less of the kernel
only = ''  # a part of the names of those that are run
SOURCES = ('tests', 'client', 'docs', 'packaging')


def listed(place):
    """Lines of a program and, if it has others that are not left out, the name of its test."""
    return [line.split() for line in (place.build / 'tests/not-emulated').read_text().splitlines()]


def add_files(files, place):
    files.tree('/', place.kernel.parent / 'root')
    files.text('/etc/group', 'root:x:0:\ngames:x:60:\n')  # a client of another user is in this group
    for name in SOURCES:
        files.tree(place.root / name, place.root / name)
    programs = [place.build / 'set/vestra-set', place.build / 'vestra-daemon/vestrad', place.build / 'tests/write_dump',
                *(place.build / 'tools').glob('vestra-*')]
    programs += [place.build / 'tests' / program for program, *_ in listed(place) if '.' not in program]
    programs = [path for path in programs if path.is_file()]
    for path in programs:
        files.program(path, path)
    shared = list(place.build.glob('**/*.so*'))
    files.libraries(programs + shared, place.libraries, [place.build / 'platform/simulated', *place.library_directories,
                                                         place.build / 'client'])
    for path in (*shared, place.build / 'CMakeCache.txt'):
        files.file(path, path)
    lines = [words for words in listed(place) if words[0] not in EXPLAINED and only in words[0]]
    lines.sort(key=lambda words: next((i for i, part in enumerate(ORDER) if part in words[0]), len(ORDER)))
    files.text('/guest/test-list', ''.join(f'{" ".join(words)}\n' for words in lines))
    files.text('/guest/test-paths', f'SOURCE={place.root}\nBUILD={place.build}\n')


def results_of_script(text):
    """Name and result of each test of a Python script that ran with -v."""
    pieces = re.split(r'(?m)^(test_\w+) \(\S+\)', text)
    for name, piece in zip(pieces[1::2], pieces[2::2]):
        found = re.search(r'(?m)(?:^|\.\.\. )(ok|FAIL|ERROR|skipped .*)$', piece)
        yield name, found[1] if found else 'no result'


def results(text):
    if '[==========]' in text:
        for result, name in re.findall(r'(?m)^\[ +(OK|FAILED|SKIPPED) +\] (\w+\.\w+)(?: \(|$)', text):
            yield name, result.lower()
    elif re.search(r'(?m)^test_', text):
        yield from results_of_script(text)
    else:
        for result, name in re.findall(r'(?m)^(ok|FAILED) +(.+)$', text):
            yield name, result


def judge(judge):
    codes = judge.numbers('codes')
    judge.expect(codes, 'no test was run')
    passed = 0
    for program, code in codes.items():
        found = list(results(judge.text(f'{program}.log')))
        judge.expect(code == 0 and found, f'{program} ended with {code:.0f} after {len(found)} tests')
        for name, result in found:
            passed += result == 'ok'
            if result.startswith('skipped'):
                judge.say(f'skipped  {program}: {name} {result[8:]}')
            judge.expect(result in ('ok', 'skipped') or result.startswith('skipped'), f'{program}: {name}: {result}')
    for program, reason in EXPLAINED.items():
        judge.say(f'left out {program}: {reason}')
    judge.say(f'{passed} tests passed in {len(codes)} programs')
