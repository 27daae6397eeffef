#!/usr/bin/env python3
"""What runs of scripts/machine do that are interrupted, run side by side or have no room. Nothing is emulated here."""
import os
import queue
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
sys.dont_write_bytecode = True
sys.path.insert(0, str(ROOT / 'machine'))
from alone import alone  # noqa: E402  (the path comes first)
from machine import Machine, MachineFailed  # noqa: E402

# They take what they find for a module.
TOOLS = {'make': 'for word; do case $word in M=*) cat "${word#M=}"/*.c >"${word#M=}/orna_vestra_kmod.ko" ;; esac; done',
         'strip': 'while [ $# -gt 2 ]; do [ "$1" != -o ] || cp "$3" "$2"; shift; done'}


class EmulatedMachine(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = Path(directory.name)
        self.built = self.root / 'build/machine/amd64'
        for name in ('kmod', 'scripts'):
            shutil.copytree(ROOT / name, self.root / name)
        (self.built / 'kernel').mkdir(parents=True)
        for name in ('.complete', 'release'):
            (self.built / 'kernel' / name).touch()
        for name, text in TOOLS.items():
            (self.root / name).write_text(f'#!/bin/sh\n{text}\n')
            (self.root / name).chmod(0o755)

    def build(self):
        command = [self.root / 'scripts/kmod', 'amd64']
        return subprocess.run(command, env={**os.environ, 'PATH': f'{self.root}:{os.environ["PATH"]}'}, capture_output=True,
                              check=False).returncode

    def test_a_source_whose_copy_was_cut_short_is_copied_again(self):
        self.assertEqual(self.build(), 0)
        copy = self.built / 'kmod/frame.c'
        copy.write_bytes(copy.read_bytes()[:100])
        self.assertEqual(self.build(), 0)
        self.assertEqual(copy.read_bytes(), (ROOT / 'kmod/frame.c').read_bytes())

    def test_a_second_run_leaves_the_files_of_the_first(self):
        scenario = self.root / 'record'
        with alone(scenario):
            with self.assertRaises(MachineFailed), alone(scenario):
                shutil.rmtree(self.root)
        with alone(scenario):
            self.assertTrue(self.built.is_dir())

    def test_a_full_disk_ends_the_run_at_once(self):
        lines = queue.Queue()
        machine = Machine('amd64', self.root)
        with subprocess.Popen(['echo', 'a line'], stdout=subprocess.PIPE) as machine._process:
            (self.root / 'serial.log').symlink_to('/dev/full')
            with self.assertRaises(OSError):
                machine._read_serial(lines)
        self.assertIsNone(lines.get_nowait())


if __name__ == '__main__':
    unittest.main()
