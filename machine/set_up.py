#!/usr/bin/env python3
"""Runs a shell's script on the system of a disk, on an emulated machine: for an architecture whose programs do not run here.
scripts/machine-root and scripts/machine-disk use it."""
import argparse
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
import root_initramfs  # noqa: E402  (the path comes first)
from machine import KINDS, Machine, MachineFailed  # noqa: E402

MEMORY = 1024  # MiB


def make_disk(directory, image):
    """Has what is in the directory, whose files are not too small on average."""
    size = sum(path.stat().st_size for path in directory.rglob('*') if path.is_file())
    with open(image, 'wb') as file:
        file.truncate(size * 9 // 8 + (16 << 20))
    subprocess.run(['mke2fs', '-q', '-t', 'ext4', '-L', 'setup', '-d', directory, image], check=True)


def drive(name, image):
    # Not written through: if the host breaks down, the disk is made again.
    return ['-drive', f'if=none,id={name},format=raw,cache=unsafe,file={image}', '-device', f'virtio-blk-pci,drive={name}']


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument('architecture', choices=KINDS)
    parser.add_argument('kernel', type=Path, help='a directory of scripts/machine-kernel')
    parser.add_argument('system', type=Path, help='a directory of scripts/machine-root')
    parser.add_argument('disk', type=Path, help='an ext4 with the label "system"')
    parser.add_argument('setup', type=Path, help='a directory that the guest sees as /setup; its file "run" is the script')
    parser.add_argument('minutes', type=int, help='after which it has failed')
    options = parser.parse_args()
    directory = options.setup.with_name(f'{options.setup.name}.run').resolve()
    directory.mkdir(exist_ok=True)
    make_disk(options.setup, directory / 'setup.img')
    root_initramfs.make(options.kernel, options.system, directory / 'initramfs', root_initramfs.SETUP)
    begin = time.monotonic()

    def say(line):
        print(f'{options.architecture} {time.monotonic() - begin:5.0f} s  {line}', flush=True)

    try:
        Machine(options.architecture, directory).run(
            options.kernel.resolve() / 'vmlinuz', directory / 'initramfs', '', options.minutes * 60, say, memory=MEMORY,
            options=(*KINDS[options.architecture].installed, *drive('system', options.disk.resolve()), *drive('setup', 'setup.img')))
    except MachineFailed as failure:
        log = directory / 'serial.log'
        lines = log.read_text('latin1').splitlines() if log.exists() else []
        print(*lines[-30:], f'set_up: {failure}', sep='\n', file=sys.stderr)
        return 1
    return 0


if __name__ == '__main__':
    sys.exit(main())
