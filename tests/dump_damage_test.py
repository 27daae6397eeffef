#!/usr/bin/env python3
"""What the dump tool says about damaged dumps: the span and the wall clock are right or not known, and the exit code tells."""
import csv
import io
import json
import random
import unittest

from dump_output_test import NAMED, TRAILER, DumpTest, dump_tool, made, output, write

NEWEST = 839_975_000_000  # ns of the whole dump; the oldest is 600 s
SWITCH_FIELDS, INFO_FIELDS, NAME_FIELD, TICKS_FIELD = 33, 19, 4, 7  # a message's type is field 0, its time field 1


class Recording:
    """A payload and where everything is in it."""

    def __init__(self, payload):
        self.payload = payload
        self.frames = []    # (offset, size)
        self.messages = []  # (offsets of the fields)
        at = 0
        while at < len(payload):
            size = int.from_bytes(payload[at:at + 4], 'little')
            if size > 0:
                self.frames.append((at, 4 + size))
                self.read_messages(at + 6, at + 4 + size, SWITCH_FIELDS if payload[at + 4] == 7 else INFO_FIELDS)
            at += 4 + size

    def read_messages(self, at, end, fields):
        while at < end:
            message = []
            for field in range(fields):
                message.append(at)
                begin = at
                while self.payload[at] >= 0x80:
                    at += 1
                at += 1 + (self.payload[begin] if field == NAME_FIELD else 0)
            self.messages.append(message)


RECORDING = Recording(made('steady', 40, 0, 240, 7))
OTHER = made('steady', 40, 0, 3000, 99)


def flipped(payload, offset, bit):
    changed = bytearray(payload)
    changed[offset + bit // 7] ^= 1 << bit % 7
    return bytes(changed)


def replaced(payload, offset, piece):
    return payload[:offset] + piece + payload[offset + len(piece):]


def stamp(payload, message, bit):
    return flipped(payload, RECORDING.messages[message][1], bit)


def cluster(payload, offset, size=32768, begin=-4_000_000):
    return replaced(payload, offset, OTHER[begin:begin + size])


class DumpDamage(DumpTest):
    def read(self, payload, trailer=TRAILER):
        """The exit code of info, and what it says."""
        write(NAMED, payload, trailer)
        done = dump_tool('info', '--json', '--top', 100, NAMED)
        return done.returncode, json.loads(done.stdout)

    def expect_true(self, payload, trailer=TRAILER):
        code, info = self.read(payload, trailer)
        self.assertGreaterEqual(info['first_ns'], 600_000_000_000)
        self.assertLessEqual(info['last_ns'], NEWEST)
        self.assertIn(info.get('epoch_ns'), (None, 1795560058_000_000_000 - NEWEST))
        self.assertEqual(code, 1)
        return info

    def test_whole_dump_is_clean(self):
        code, info = self.read(RECORDING.payload)
        self.assertEqual((code, info['first_ns'], info['last_ns']), (0, 600_000_000_000, NEWEST))

    def test_gaps_and_low_rates_are_no_damage(self):
        minute, three = (len(made('steady', 40, 0, blocks, 7)) for blocks in (60, 3))
        for name, payload, first, last in (
                ('tracing was off early', RECORDING.payload[:three] + RECORDING.payload[minute:], 600, 839),
                ('reads stalled', made('stall', 40, 0, 240, 7), 600, 832),
                ('one process for eleven hours', made('steady', 1, 0, 40_000, 7), 600, 40_599)):
            with self.subTest(name):
                code, info = self.read(payload)
                self.assertEqual((code, info['first_ns'] // 10**9, info['last_ns'] // 10**9), (0, first, last))

    def test_damage_is_told_and_time_is_true(self):
        payload, last = RECORDING.payload, len(RECORDING.messages) - 1
        ticks = next(message[TICKS_FIELD] for message in RECORDING.messages[last // 2:]
                     if len(message) == SWITCH_FIELDS and message[TICKS_FIELD + 1] == message[TICKS_FIELD] + 2)
        frame, size = RECORDING.frames[len(RECORDING.frames) // 2]
        rows = {  # the payload, its trailer; seconds at the ends of the span, whether the wall clock is known, samples astray
            'cut': (payload[:300_000], b'', 600, 688, False, 0),
            'end is zeros': (payload[:-200_000] + bytes(200_000 + len(TRAILER)), b'', 600, 780, False, 0),
            'hole': (replaced(payload, 300_000, bytes(50_000)), TRAILER, 600, 839, True, 0),
            'stamp in the middle': (stamp(payload, last // 2, 37), TRAILER, 600, 839, True, 1),
            'two stamps': (stamp(stamp(payload, last // 2, 40), last // 2 + 1, 40), TRAILER, 600, 839, True, 2),
            'first stamp': (stamp(payload, 0, 38), TRAILER, 600, 839, True, 1),
            'first stamp, by seconds': (stamp(payload, 1, 32), TRAILER, 600, 839, True, 1),
            'last stamp': (stamp(payload, last, 39), TRAILER, 600, 839, False, 1),
            'last stamp, by seconds': (stamp(payload, last, 32), TRAILER, 600, 839, False, 1),
            'other recording': (cluster(payload, 400_000), TRAILER, 600, 839, True, None),
            'other recording first': (cluster(payload, 0), TRAILER, 609, 839, True, None),
            'other recording last': (cluster(payload, len(payload) - 32768), TRAILER, 600, 830, False, None),
            'other recording, of the same time': (cluster(payload, 400_000, begin=100_000), TRAILER, 600, 839, True, None),
            'frame type': (flipped(payload, frame + 4, 1), TRAILER, 600, 839, True, 0),
            'zeros in a frame': (replaced(payload, frame, bytes(20)), TRAILER, 600, 839, True, 0),
            'bit 24 of a length': (flipped(payload, frame + 3, 0), TRAILER, 600, 839, True, 0),
            'bit 9 of a length': (flipped(payload, frame + 1, 1), TRAILER, 600, 839, True, 0),
            'bit 7 of a length': (flipped(payload, frame, 4), TRAILER, 600, 839, True, 0),
            'counter': (flipped(payload, ticks, 13), TRAILER, 600, 839, True, 0),
        }
        whole = self.read(payload)[1]
        for name, (damaged, trailer, first, end, known, astray) in rows.items():
            with self.subTest(name):
                info = self.expect_true(damaged, trailer)
                self.assertEqual((info['first_ns'] // 10**9, info['last_ns'] // 10**9), (first, end))
                self.assertEqual('epoch_ns' in info, known)
                self.assertIn(info['samples_astray'], (astray, info['samples_astray'] if astray is None else astray))
                if trailer and 'other' not in name and name not in ('hole', 'zeros in a frame'):
                    self.assertEqual(info['messages'], whole['messages'])
                    for process, true in zip(info['top_cpu'], whole['top_cpu']):
                        self.assertAlmostEqual(process['cpu_seconds'], true['cpu_seconds'], delta=0.5)

    def test_any_few_faults_leave_the_span_within_the_truth(self):
        for seed in range(150):
            with self.subTest(seed):
                chance = random.Random(seed)
                payload = RECORDING.payload
                for _ in range(chance.randint(1, 4)):
                    message, at = chance.randrange(len(RECORDING.messages)), chance.randrange(len(payload))
                    frame, size = RECORDING.frames[chance.randrange(len(RECORDING.frames))]
                    payload = chance.choice((
                        lambda: stamp(payload, message, chance.randrange(33, 42)),
                        lambda: stamp(stamp(payload, message, 36), min(message + 1, len(RECORDING.messages) - 1), 36),
                        lambda: cluster(payload, at // 4096 * 4096, chance.choice((4096, 32768)), -chance.randrange(40_000, 8_000_000)),
                        lambda: replaced(payload, at // 512 * 512, bytes(512 * chance.randrange(1, 400))),
                        lambda: replaced(payload, at // 512 * 512, chance.randbytes(512)),
                        lambda: flipped(payload, frame + 4, chance.randrange(1, 7)),
                        lambda: flipped(payload, frame + chance.randrange(4), chance.randrange(7)),
                    ))()[:len(RECORDING.payload)]
                self.expect_true(payload)

    def test_every_command_has_the_same_time(self):
        last = len(RECORDING.messages) - 1
        write(NAMED, stamp(stamp(RECORDING.payload, 0, 38), last // 2, 40), TRAILER)
        wall = '2026-11-24T22:40:58.000Z'
        rows = list(csv.DictReader(io.StringIO(output('csv', NAMED))))
        self.assertEqual((len(rows), rows[0]['second'], rows[-1]['second'], rows[-1]['wall_time']), (240, '600', '839', wall))
        self.assertEqual(len(output('csv', '--from', '2026-11-24T22:40:57', NAMED).splitlines()), 1 + 2)
        self.assertEqual(dump_tool('cut', NAMED, 'cut').returncode, 1)
        self.assertEqual(dump_tool('info', 'cut').returncode, 0)
        self.assertEqual(len(list(csv.reader(io.StringIO(output('csv', '--processes', 'cut'))))), 1 + 240 * 40 - 1)

    def test_existing_output_survives_an_input_that_is_no_dump(self):
        write('noise', b'no dump')
        write('out', b'precious')
        for command in 'csv', 'json', 'report', 'perfetto':
            self.assertEqual(dump_tool(command, 'noise', '-o', 'out').returncode, 2)
        self.assertEqual(dump_tool('cut', 'noise', 'out').returncode, 2)
        with open('out', 'rb') as kept:
            self.assertEqual(kept.read(), b'precious')


if __name__ == '__main__':
    unittest.main(verbosity=2)
