#!/usr/bin/env python3
"""The daemon and vestra-key with the platform of a Linux machine: the set that they run in has neither devices nor a bus."""
import os
import subprocess
import tempfile
from pathlib import Path

from set_env import BUILD, HISTORY_KEY, LOG, OK, VESTRAD, SetTest, main, run, text_of

KEY = BUILD / 'tools/vestra-key'


class LinuxPlatform(SetTest):
    def setUp(self):
        super().setUp()
        Path('/var/lib').mkdir(parents=True, exist_ok=True)
        # Without the set's own library the loader finds that which the programs are linked with.
        self.assertIn('/tv/platform/', run('ldd', VESTRAD).stdout)
        libraries = os.environ.pop('LD_LIBRARY_PATH')
        self.addCleanup(os.environ.update, LD_LIBRARY_PATH=libraries)
        self.assertNotIn('/tv/platform/', run('ldd', VESTRAD).stdout)

    def test_the_daemon_starts_where_every_service_is_missing(self):
        self.start('1', '4')
        for line in ('cannot open /etc/vestrad/keys.conf', 'cannot open /etc/vestrad/system.conf'):
            self.assertEqual(text_of(LOG).count(line), 1, line)
        self.assertTrue(self.runs())

    def test_a_key_of_another_process_reaches_the_daemon_and_its_watchers(self):
        self.start('1', '4')
        with subprocess.Popen([KEY, 'watch', HISTORY_KEY, 'text'], stdout=subprocess.PIPE, text=True) as watching:
            self.addCleanup(watching.kill)
            self.becomes(lambda: run('grep', '-c', 'inotify', f'/proc/{watching.pid}/fdinfo', '-r').returncode == OK)
            self.assertEqual(run(KEY, 'set', '--text', 'text', '7').returncode, OK)
            self.assertEqual(watching.stdout.readline(), 'text 7\n')
            self.assertEqual(run(KEY, 'set', HISTORY_KEY, '1').returncode, OK)
            while watching.stdout.readline() != f'{HISTORY_KEY} 0\n':
                pass
            watching.kill()
        self.assertEqual(run(KEY, 'get', HISTORY_KEY).stdout, '0\n')
        self.assertEqual(Path('/var/lib/vestrad/keys/text').read_text(), 'string\n7')

    def test_the_journal_gets_the_priority_of_a_line(self):
        with tempfile.TemporaryFile() as journal, tempfile.TemporaryFile() as other:
            stream = f'{os.fstat(journal.fileno()).st_dev}:{os.fstat(journal.fileno()).st_ino}'
            for errors in (journal, other):
                subprocess.run([KEY, 'get', 'none'], stderr=errors, env={**os.environ, 'JOURNAL_STREAM': stream}, check=False)
                errors.seek(0)
            self.assertRegex(journal.read(), rb'^<4>PLATFORM: cannot open /var/lib/vestrad/keys/none ')
            self.assertRegex(other.read(), rb'^\d+-\d+-\d+ \S+ W \d+:\d+ PLATFORM: cannot open ')


if __name__ == '__main__':
    main({'LinuxPlatform': '--node --source synthetic'})
