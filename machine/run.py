#!/usr/bin/env python3
"""Runs scenarios on an emulated machine and judges what it brings out. scripts/machine builds what this needs."""
import argparse
import sys
import time
from dataclasses import dataclass
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parent))
import cost  # noqa: E402  (the path comes first)
import figures  # noqa: E402
import module  # noqa: E402
import record  # noqa: E402
import soak  # noqa: E402
import swarm  # noqa: E402
import tests  # noqa: E402
import view  # noqa: E402
from alone import alone  # noqa: E402
from initramfs import Initramfs  # noqa: E402
from judge import Judge  # noqa: E402
from machine import KINDS, Machine, MachineFailed  # noqa: E402

ROOT = Path(__file__).resolve().parents[1]
GUEST = ROOT / 'machine/guest'
# A scenario is a module with judge(judge), a docstring, LIMIT in seconds, and, where they differ from those below,
# PROCESSORS, MEMORY in MiB, OPTIONS of qemu, PARAMETERS of the kernel and CHAIN_MIB, the size of the daemon's chain. It may
# also have
#   ARCHITECTURES                the only ones that it is for
#   add_files(files, place)      puts more into the guest's file system
#   drive(machine)               works at the guest's console
SCENARIOS = {'record': record, 'figures': figures, 'module': module, 'swarm': swarm, 'cost': cost, 'view': view, 'tests': tests,
             'soak': soak}
NAMED_ONLY = ('tests', 'soak')  # take long


@dataclass(frozen=True)
class Place:
    """Where things are on this machine."""
    root: Path  # of the repository
    build: Path  # the programs for the guest
    kernel: Path
    libraries: Path  # a root that has the guest's libraries
    library_directories: tuple


def place_of(machine):
    architecture = machine.split('-')[0]
    kind = KINDS[architecture]
    return Place(ROOT, ROOT / 'build' / kind.preset, ROOT / 'build/machine' / machine / 'kernel',
                 Path('/') if architecture == 'amd64' else ROOT / 'build/arm-sysroot', kind.library_directories)


def make_initramfs(scenario, place, target):
    build, kernel = place.build, place.kernel
    files = Initramfs()
    files.program('/init', GUEST / 'init')
    files.program('/bin/busybox', kernel / 'busybox')
    programs = {'/usr/bin/vestrad': build / 'vestra-daemon/vestrad',
                '/usr/bin/vestra-stat': build / 'tools/vestra-stat',
                '/usr/bin/vestra-dump': build / 'tools/vestra-dump',
                '/bin/strain': build / 'machine/strain'}
    for path, source in programs.items():
        files.program(path, source)
    files.libraries(programs.values(), place.libraries,
                    [build / 'platform/simulated', *place.library_directories, build / 'client'])
    files.file('/lib/modules/linux/kernel/orna-vestra-kmod.ko', kernel.parent / 'kmod/orna_vestra_kmod.ko')
    for driver in (kernel / 'modules').iterdir():
        files.file(f'/drivers/{driver.name}', driver)
    for script in GUEST.iterdir():
        if script.name != 'init':
            files.program(f'/guest/{script.name}', script)
    configuration = (ROOT / 'packaging/orna_vestra_config.xml').read_text()
    # The smallest chain is the first to be full.
    chain = getattr(scenario, 'CHAIN_MIB', 1)
    configuration = configuration.replace('<max_file_size>10<', f'<max_file_size>{chain}<')
    files.text('/opt/data/vestraDir/orna_vestra_config.xml', configuration)
    files.text('/etc/passwd', 'root::0:0::/:/bin/sh\n')
    if hasattr(scenario, 'add_files'):
        scenario.add_files(files, place)
    files.write(target)


def run(guest, name, minutes):
    scenario = SCENARIOS[name]
    architecture = guest.split('-')[0]
    begin = time.monotonic()

    def say(line):
        print(f'{guest} {time.monotonic() - begin:5.1f} s  {line}', flush=True)

    if architecture not in getattr(scenario, 'ARCHITECTURES', KINDS):
        say(f'{name}: not for this architecture')
        return True
    directory = ROOT / 'build/machine' / guest / name
    directory.mkdir(parents=True, exist_ok=True)
    place = place_of(guest)
    initramfs = directory / 'initramfs'
    make_initramfs(scenario, place, initramfs)
    machine = Machine(architecture, directory)
    drive = (lambda: scenario.drive(machine)) if hasattr(scenario, 'drive') else None
    parameters = f'vestra.scenario={name} vestra.minutes={minutes} {getattr(scenario, "PARAMETERS", "")}'
    machine.run(place.kernel / 'vmlinuz', initramfs, parameters, scenario.LIMIT, say,
                processors=getattr(scenario, 'PROCESSORS', 4), memory=getattr(scenario, 'MEMORY', 512),
                options=getattr(scenario, 'OPTIONS', ()), drive=drive)
    judge = Judge(machine.results, ROOT / 'build/release/tools/vestra-dump', say)
    judge.expect(judge.text('kernel.log'), 'the guest brought out no kernel log')
    judge.expect('blocked for more than' not in judge.text('kernel.log'), 'the kernel has a task that hangs')
    scenario.judge(judge)
    for failure in judge.failures:
        say(f'FAILED: {failure}')
    say(f'{name}: {"failed" if judge.failures else "passed"}')
    return not judge.failures


def main():
    parser = argparse.ArgumentParser(prog='scripts/machine', formatter_class=argparse.RawDescriptionHelpFormatter,
                                     epilog='\n'.join(f'  {name:8} {scenario.__doc__}' for name, scenario in SCENARIOS.items()))
    parser.add_argument('machine', help='amd64, armhf, or amd64-SUITE with the kernel of another Debian release')
    parser.add_argument('scenario', nargs='*', help=f'without one: all but {" ".join(NAMED_ONLY)}')
    parser.add_argument('--minutes', type=int, default=60, help='of guest time, for soak (%(default)s)')
    parser.add_argument('--only', default='', help='for tests: a part of the names of the test programs to run')
    parser.add_argument('--check', action='store_true', help='only look at the arguments')
    options = parser.parse_args()
    tests.only = options.only
    if options.machine.split('-')[0] not in KINDS:
        parser.error(f'no machine {options.machine}; there are: {" ".join(sorted(KINDS))}')
    unknown = set(options.scenario) - set(SCENARIOS)
    if unknown:
        parser.error(f'no scenario {" ".join(sorted(unknown))}; there are: {" ".join(SCENARIOS)}')
    if options.check:
        return 0
    names = options.scenario or [name for name in SCENARIOS if name not in NAMED_ONLY]
    try:
        results = []
        for name in names:
            with alone(ROOT / 'build/machine' / options.machine / name):
                results.append(run(options.machine, name, options.minutes))
    except (MachineFailed, OSError) as failure:
        print(f'machine: {failure}', file=sys.stderr)
        return 1
    return 0 if all(results) else 1


if __name__ == '__main__':
    sys.exit(main())
