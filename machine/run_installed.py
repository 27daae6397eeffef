#!/usr/bin/env python3
"""Runs scenarios on an installed machine. scripts/machine-installed makes what this needs."""
import argparse
import shutil
import sys
import time
from dataclasses import dataclass
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import installed  # noqa: E402  (the path comes first)
import installed_autopkgtest  # noqa: E402
import installed_cuts  # noqa: E402
import installed_life  # noqa: E402
import installed_sticks  # noqa: E402
import installed_ways  # noqa: E402
import root_initramfs  # noqa: E402
from agent import AgentFailed  # noqa: E402
from alone import alone  # noqa: E402
from box import Box  # noqa: E402
from judge import Judge  # noqa: E402
from machine import KINDS, MachineFailed  # noqa: E402
from qmp import QmpFailed  # noqa: E402
from recorder import Recorder  # noqa: E402

ROOT = Path(__file__).resolve().parents[1]
SCENARIOS = {'stick': installed, 'sticks': installed_sticks, 'ways': installed_ways, 'life': installed_life,
             'autopkgtest': installed_autopkgtest, 'cuts': installed_cuts}
USUAL = ('stick', 'sticks', 'ways', 'life')


@dataclass(frozen=True)
class Setting:
    directory: Path  # for the scenario's files
    kernel: Path
    initramfs: Path
    disk: Path  # of scripts/machine-disk
    cuts: int
    looks: int
    seed: int

    def boot(self, box, drive=''):
        """Without another drive, what the machine writes is gone when it ends."""
        box.power_on(self.kernel, self.initramfs, drive or f'format=raw,snapshot=on,file={self.disk}')


def directory_of(name, options):
    # Cuts with several seeds may run side by side.
    return ROOT / 'build/machine' / options.architecture / 'installed' / (name if options.seed == 1 else f'{name}-{options.seed}')


def run(architecture, name, options):
    directory = directory_of(name, options)
    shutil.rmtree(directory, ignore_errors=True)
    directory.mkdir(parents=True)
    begin = time.monotonic()

    def say(line):
        print(f'{architecture} {time.monotonic() - begin:5.1f} s  {line}', flush=True)

    machine = ROOT / 'build/machine' / architecture
    root_initramfs.make(machine / 'kernel', machine / 'system', directory / 'initramfs')
    disk = (options.disk or machine / 'installed.img').resolve()
    setting = Setting(directory, machine / 'kernel/vmlinuz', directory / 'initramfs', disk, options.cuts, options.looks,
                      options.seed)
    judge = Judge(directory, ROOT / 'build/release/tools/vestra-dump', say)
    with Box(architecture, directory, say) as box:
        recorder = Recorder(box, judge)
        try:
            SCENARIOS[name].play(recorder, setting)
            if box.is_on():
                recorder.calm()
        except (AgentFailed, MachineFailed, QmpFailed) as failure:
            judge.expect(False, str(failure))
        finally:  # also when it is interrupted
            for failure in judge.failures:
                say(f'FAILED: {failure}')
    say(f'{name}: {"failed" if judge.failures else "passed"}')
    return not judge.failures


def main():
    parser = argparse.ArgumentParser(prog='scripts/machine ARCHITECTURE installed')
    parser.add_argument('architecture', choices=KINDS)
    parser.add_argument('--cuts', type=int, default=50, help='of the power, 50 without it')
    parser.add_argument('--looks', type=int, default=5, help='before each cut: what one would leave then, 5 without it')
    parser.add_argument('--seed', type=int, default=1, help='of the moments of the cuts, 1 without it')
    parser.add_argument('--disk', type=Path, help='of scripts/machine-disk; another than installed.img')
    texts = (f'{name}: {scenario.__doc__}' for name, scenario in SCENARIOS.items())
    parser.add_argument('scenario', nargs='*', help='; '.join(texts))
    options = parser.parse_args()
    unknown = set(options.scenario) - set(SCENARIOS)
    if unknown:
        parser.error(f'no scenario {" ".join(sorted(unknown))}; there are: {" ".join(SCENARIOS)}')
    results = []
    try:
        for name in options.scenario or USUAL:
            with alone(directory_of(name, options)):
                results.append(run(options.architecture, name, options))
    except (MachineFailed, OSError) as failure:
        print(f'machine: {failure}', file=sys.stderr)
        return 1
    return 0 if all(results) else 1


if __name__ == '__main__':
    sys.exit(main())
