#!/usr/bin/env python3
"""The Python module, as a program has it, with a daemon in a simulated set."""
import ctypes
import itertools
import json
import os
import random
import re
import signal
import sys
import threading
import time

from set_env import BUILD, ROOT, STAT, SetTest, main, run

ctypes.CDLL(str(BUILD / 'client/libvestra-api.so.1'))  # the loader finds it by this name from now on
sys.path.insert(0, str(ROOT / 'client'))
import vestra  # noqa: E402


class PythonModule(SetTest):
    def test_names_units_and_figures_are_those_of_vestra_stat(self):
        self.start()
        self.fill_ring(4)
        known = lambda value: None if value != value else value
        shown = json.loads(run(STAT, '--json', '--window', 30).stdout)['vitals']
        answers = vestra.ask(window=30)
        self.assertEqual([(name.replace('-', '_'), vital['unit'], *(vital[field] for field in vestra.Figures._fields))
                          for name, vital in shown.items()],
                         [(name, vestra.UNITS[name], *map(known, figures)) for name, figures in answers.items()])
        header = (ROOT / 'client/vestra_api.h').read_text()
        in_c = re.findall(r'VESTRA_API_(\w+) = (\d+)', header[header.index('enum vestra_api_vital'):])
        self.assertEqual([name.lower() for name, _ in in_c[:17]], list(vestra.VITALS))

    def test_what_cannot_be_asked_or_answered_is_an_exception(self):
        with vestra.Client() as client:
            self.assertRaises(vestra.NoDaemon, client.ask)
            self.start()
            self.assertEqual(list(client.ask(['load', 2, 'load'])), ['load', 'cpu_total'])
            for vitals, window in (('lead', 0), (17, 0), (-1, 0), ([], 0), ('load', -1), ('load', 181)):
                self.assertRaises(ValueError, client.ask, vitals, window)
            self.assertRaises(TypeError, client.ask, [2.0])
            self.assertRaises(TypeError, client.ask, 'load', 1.0)
            self.pause()
            waits = threading.Thread(target=client.ask, kwargs={'timeout': 30})
            waits.start()
            self.assertRaises(vestra.Timeout, client.ask, timeout=0.2)
            self.assertTrue(waits.is_alive(), 'another thread keeps the handle longer than that')
            self.resume()
            waits.join()
        self.assertRaises(ValueError, client.ask)

    def test_watch_goes_on_when_the_daemon_comes_back(self):
        self.start()
        with vestra.Client() as client:
            answers = client.watch('load', interval=0.01, timeout=10)
            next(answers)
            self.end()
            self.start()
            self.assertEqual([list(answer) for answer in itertools.islice(answers, 2)], [['load']] * 2)

    def test_interrupts_and_forks_leave_a_client_usable(self):
        self.start()
        interrupted = 0
        signal.signal(signal.SIGALRM, signal.default_int_handler)
        with vestra.Client() as client:
            while interrupted < 1000:
                try:
                    signal.setitimer(signal.ITIMER_REAL, random.uniform(1e-5, 3e-4))
                    client.ask('load', timeout=15)
                    time.sleep(0.01)  # the interrupt comes now at the latest; where it hit a destructor, Python drops it
                except KeyboardInterrupt:
                    interrupted += 1
            asks = threading.Thread(target=lambda: [client.ask(timeout=15) for _ in range(3000)])
            asks.start()
            for _ in range(20):
                child = os.fork()
                if child == 0:
                    os._exit(list(client.ask('load', timeout=15)) != ['load'])
                self.assertEqual(os.waitpid(child, 0)[1], 0)
            asks.join()


if __name__ == '__main__':
    main({'PythonModule': '--node --source synthetic'})
