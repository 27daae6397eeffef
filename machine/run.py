#!/usr/bin/env python3
"""Runs scenarios on an emulated machine and judges what it brings out. scripts/machine builds what this needs."""
import argparse
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import cost  # noqa: E402  (the path comes first)
import module  # noqa: E402
import record  # noqa: E402
from initramfs import Initramfs  # noqa: E402
from judge import Judge  # noqa: E402
from machine import KINDS, Machine, MachineFailed  # noqa: E402

ROOT = Path(__file__).resolve().parents[1]
GUEST = ROOT / 'machine/guest'
SCENARIOS = {'record': record, 'module': module, 'cost': cost}


def make_initramfs(architecture, target):
    kind, kernel = KINDS[architecture], ROOT / 'build/machine' / architecture / 'kernel'
    build = ROOT / 'build' / kind.preset
    root = Path('/') if architecture == 'amd64' else ROOT / 'build/arm-sysroot'
    files = Initramfs()
    files.program('/init', GUEST / 'init')
    files.program('/bin/busybox', kernel / 'busybox')
    programs = {'/usr/bin/vestrad': build / 'vestra-daemon/vestrad',
                '/usr/bin/vestra-stat': build / 'tools/vestra-stat',
                '/bin/strain': build / 'machine/strain'}
    for path, source in programs.items():
        files.program(path, source)
    files.libraries(programs.values(), root, [build / 'platform/simulated', *kind.library_directories, build / 'client'])
    files.file('/lib/modules/linux/kernel/orna-vestra-kmod.ko', kernel.parent / 'kmod/orna_vestra_kmod.ko')
    for driver in (kernel / 'modules').iterdir():
        files.file(f'/drivers/{driver.name}', driver)
    for script in GUEST.iterdir():
        if script.name != 'init':
            files.program(f'/guest/{script.name}', script)
    configuration = (ROOT / 'packaging/orna_vestra_config.xml').read_text()
    # The smallest chain is the first to be full.
    configuration = configuration.replace('<max_file_size>10<', '<max_file_size>1<')
    files.text('/opt/data/vestraDir/orna_vestra_config.xml', configuration)
    files.text('/etc/passwd', 'root::0:0::/:/bin/sh\n')
    files.write(target)


def run(architecture, name):
    directory = ROOT / 'build/machine' / architecture / name
    directory.mkdir(parents=True, exist_ok=True)
    begin = time.monotonic()

    def say(line):
        print(f'{architecture} {time.monotonic() - begin:5.1f} s  {line}', flush=True)

    initramfs = directory / 'initramfs'
    make_initramfs(architecture, initramfs)
    machine = Machine(architecture, directory)
    scenario = SCENARIOS[name]
    machine.run(directory.parent / 'kernel/vmlinuz', initramfs, name, scenario.LIMIT, say,
                getattr(scenario, 'PROCESSORS', 4), getattr(scenario, 'OPTIONS', ()))
    judge = Judge(machine.results, ROOT / 'build/release/tools/vestra-dump', say)
    scenario.judge(judge)
    for failure in judge.failures:
        say(f'FAILED: {failure}')
    say(f'{name}: {"failed" if judge.failures else "passed"}')
    return not judge.failures


def main():
    parser = argparse.ArgumentParser(prog='scripts/machine')
    parser.add_argument('architecture', choices=sorted(KINDS))
    texts = (f'{name}: {scenario.__doc__}' for name, scenario in SCENARIOS.items())
    parser.add_argument('scenario', nargs='*', help='; '.join(texts))
    options = parser.parse_args()
    unknown = set(options.scenario) - set(SCENARIOS)
    if unknown:
        parser.error(f'no scenario {" ".join(sorted(unknown))}; there are: {" ".join(SCENARIOS)}')
    try:
        results = [run(options.architecture, name) for name in options.scenario or SCENARIOS]
    except MachineFailed as failure:
        print(f'machine: {failure}', file=sys.stderr)
        return 1
    return 0 if all(results) else 1


if __name__ == '__main__':
    sys.exit(main())
