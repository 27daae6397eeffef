#!/usr/bin/env python3
"""What explain says about planted faults. bench/explain_grade measures how well; this is about the words that scripts use."""
import json
import subprocess
import unittest

from dump_output_test import BUILD, TRAILER, DumpTest, dump_tool, output, write

KINDS = 'memory-growth', 'cpu-hog', 'process-storm', 'memory-pressure', 'io-wait', 'overheating', 'vanished', 'gap'


class DumpExplain(DumpTest):
    def test_planted_fault_is_the_first_finding_and_not_one_before_it_begins(self):
        for kind in KINDS:
            with self.subTest(kind):
                made = subprocess.run([BUILD / 'tests/write_dump', 'everyday', '0', '0', '180', '17',
                                       f'{kind}@{174 if kind == "vanished" else 130}'], capture_output=True, check=True)
                pid, *name, from_ns = made.stderr.decode().strip().split(' ')
                write('a dump', made.stdout, TRAILER)
                self.assertEqual(json.loads(output('explain', '--json', '--at', '+125', 'a dump')), {'findings': []})
                (finding,) = json.loads(output('explain', '--json', 'a dump'))['findings']
                expected = (kind, int(pid), name[0]) if pid != '0' else (kind, None, None)
                self.assertEqual((finding['kind'], finding['pid'], finding['name']), expected)
                self.assertAlmostEqual(finding['from_ns'] / 1e9, int(from_ns) / 1e9, delta=6)
                self.assertLessEqual(finding['to_ns'], 780e9)
                self.assertGreater(finding['score'], 0.5)
                self.assertGreater(len(finding['evidence']), 1)
                self.assertTrue(output('explain', 'a dump').startswith(finding['text'] + '.\n'))
                command = finding['evidence']['command'].replace('vestra-dump', str(BUILD / 'tools/vestra-dump'), 1)
                shown = subprocess.run(command, shell=True, stdout=subprocess.PIPE, check=True)
                self.assertGreater(len(shown.stdout), 200)

    def test_dump_without_a_fault_has_no_finding(self):
        write('dump', subprocess.run([BUILD / 'tests/write_dump', 'everyday', '0', '0', '180', '17'],
                                     stdout=subprocess.PIPE, check=True).stdout, TRAILER)
        self.assertEqual(output('explain', 'dump'), 'Nothing stands out.\n')

    def test_exit_codes_say_what_was_read(self):
        write('damaged', b'\xff' * 77, TRAILER)
        write('text', b'no dump')
        for words, code in ('--json damaged', 1), ('text', 2), ('--at soon damaged', 64):
            self.assertEqual(dump_tool('explain', *words.split()).returncode, code, words)


if __name__ == '__main__':
    unittest.main(verbosity=2)
