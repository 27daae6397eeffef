"""power cuts at random moments of dumps, fills and plugging, on disks that lose what was not flushed (--cuts, --looks, --seed)"""
import contextlib
import hashlib
import random
import shutil
import sqlite3
import subprocess
import time
from pathlib import Path

from recorder import CHORD
from stick import Stick
from volatile import VolatileDisk

GUEST = Path(__file__).resolve().parent / 'guest-installed'
# Of the actions. A key or a stick that is gone keeps the daemon busy for many seconds, and nothing else is dumped meanwhile.
PRESSED, PULLED = 0.3, 0.04
PAUSES = (0.3, 5)  # seconds between two actions, looks or the cut
LOOK_FIRST = '''mkdir -p /etc/systemd/system/vestrad.service.d
printf '[Service]\\nExecStartPre=+/usr/local/bin/look-at-database\\n' >/etc/systemd/system/vestrad.service.d/look.conf
systemctl daemon-reload
sync'''
# Each dump, whether vestra-dump takes it for whole (0), and its sum. The next cut begins with an empty directory.
LOOK_AT_REPORTS = '''cd /var/lib/reports 2>/dev/null || exit 0
for dump in 0*; do [ -f "$dump" ] || continue
    vestra-dump info "$dump" >/dev/null 2>&1; echo "$dump $? $(sha256sum "$dump" | cut -d" " -f1)"; done
rm -f ./0*; sync'''


class Events:
    """What the guest told until its end: the sums of the dumps that were done, by place and name, and which were synced."""

    def __init__(self, path):
        self.done, self.synced, self.removed, self.counts = {'stick': {}, 'dir': {}}, set(), set(), {}
        for words in map(str.split, path.read_text('latin1').splitlines() if path.exists() else ()):
            what = words[0] if words else ''
            self.counts[what] = self.counts.get(what, 0) + 1
            if what in ('stick-done', 'dir-done') and len(words) == 3:
                self.done[what.split('-')[0]][words[1]] = words[2]
            elif what in ('stick-synced', 'dir-synced') and len(words) == 2:
                self.synced.add(words[1])
            elif what in ('stick-removed', 'dir-removed') and len(words) == 2:
                self.removed.add(words[1])

    def __str__(self):
        return ' '.join(f'{what} {count}' for what, count in sorted(self.counts.items()))


class Cuts:
    def __init__(self, recorder, setting):
        self.recorder, self.box, self.judge, self.setting = recorder, recorder.box, recorder.judge, setting
        self.chance = random.Random(setting.seed)
        self.totals = {}
        self.image = setting.directory / 'system.img'

    def count(self, name, number=1):
        self.totals[name] = self.totals.get(name, 0) + number

    def boot(self):
        disk = VolatileDisk(self.image, self.chance.randrange(1 << 30))
        self.setting.boot(self.box, f'format=raw,file.driver=nbd,file.server.type=unix,file.server.path={disk.socket.name}')
        return disk

    def prepare(self):
        """Once: what an operator sets, and what tells the host."""
        subprocess.run(['cp', '--sparse=auto', str(self.setting.disk), str(self.image)], check=True)
        disk = self.boot()
        self.recorder.prepare()
        for name in ('activity', 'look-at-database'):
            text = (GUEST / name).read_text()
            target = f'/usr/local/bin/{name}'
            self.box.run(f"cat >{target} <<'END_OF_SCRIPT'\n{text}END_OF_SCRIPT\nchmod +x {target}")
        self.box.run(LOOK_FIRST)
        return disk

    def use(self, number, disk, stick, server):
        """Keys and sticks, with looks between, until the moment that chance has chosen."""
        plugged, looks = False, 0
        self.box.run('systemd-run --quiet --unit=activity /usr/local/bin/activity')
        while True:
            action = self.chance.random()
            if not plugged:
                self.box.plug(stick, server=server)
                plugged = True
            elif action < PRESSED:
                self.box.press(*CHORD)
            elif action < PRESSED + PULLED:
                self.box.pull(stick)
                plugged = False
            time.sleep(self.chance.uniform(*PAUSES))
            if looks == self.setting.looks:
                return
            looks += 1
            self.look(f'cut {number}, look {looks}', disk, stick, server)
            time.sleep(self.chance.uniform(*PAUSES))

    def look(self, name, disk, stick, server):
        """What a cut at this moment would leave, without one: nothing of it is booted."""
        before = self.events()
        stick_copy, copy = server.copy_as_cut(), disk.copy_as_cut()
        after = self.events()
        self.judge_dumps('stick', self.sums(stick.at(stick_copy).read_all(self.setting.directory / 'stick')), before, after)
        checked = subprocess.run(['/sbin/e2fsck', '-fy', str(copy)], capture_output=True, text=True, check=False)
        self.judge.expect(checked.returncode < 4, f'{name}: the file system: {checked.stdout[-500:]}')
        out = self.setting.directory / 'out'
        shutil.rmtree(out, ignore_errors=True)
        out.mkdir()
        database = '/opt/usr/home/owner/share/tvhistory.db'
        for command in (f'rdump /var/lib/reports {out}', f'dump {database} {out}/db', f'dump {database}-journal {out}/db-journal'):
            subprocess.run(['/sbin/debugfs', '-R', command, str(copy)], capture_output=True, check=False)
        self.judge_dumps('dir', self.sums(sorted((out / 'reports').glob('0*'))), before, after)
        with contextlib.closing(sqlite3.connect(out / 'db')) as connection:
            try:
                result = connection.execute('PRAGMA integrity_check').fetchone()[0]
            except sqlite3.DatabaseError as error:
                result = str(error)
        self.judge.expect(result == 'ok', f'{name}: the database: {result}')
        self.count('database intact', int(result == 'ok'))
        self.count('looks')
        self.count('during a fill', int(after.counts.get('fill-begun', 0) > after.counts.get('fill-done', 0)))
        self.recorder.say(f'{name}: {after}')

    def cut(self, number, disk):
        """One cut and the boot after it. Returns the disk that the machine then runs from."""
        stick = Stick(self.setting.directory / 'stick.img', 'CUT', 64)
        server = VolatileDisk(stick.path, self.chance.randrange(1 << 30))
        try:
            self.use(number, disk, stick, server)
        finally:
            self.box.cut_power()
            lost = [written - reached for written, reached in (disk.end(), server.end())]
        events = self.events()
        self.judge_dumps('stick', self.sums(stick.read_all(self.setting.directory / 'stick')), events, events)
        disk = self.boot()
        self.judge.expect(self.recorder.answers() and self.recorder.records(), f'cut {number}: no recording afterwards')
        result = self.box.output('cat /run/look/result').split('\n')
        self.judge.expect(result[0] in ('ok', 'none'), f'cut {number}: the database: {result}')
        self.count('database intact', int(result[0] == 'ok'))
        lines = [line.split() for line in self.box.output(LOOK_AT_REPORTS).splitlines()]
        found = {words[0]: (words[1] == '0', words[2]) for words in lines if len(words) == 3}
        self.judge_dumps('dir', found, events, events)
        self.count('cuts')
        self.count('during a fill', int(events.counts.get('fill-begun', 0) > events.counts.get('fill-done', 0)))
        self.recorder.say(f'cut {number}: {lost[0]} and {lost[1]} sectors lost of disk and stick; {events}; '
                          f'database {" ".join(result)}')
        return disk

    def events(self):
        return Events(self.setting.directory / 'events')

    def sums(self, paths):
        return {path.name: (self.recorder.whole(path), checksum(path)) for path in paths}

    def judge_dumps(self, where, found, before, after):
        """`found`: by name, whether vestra-dump takes it for whole, and its sum. `before` and `after`: what the guest had told
        before the moment of the cut at the latest, and after it at the earliest."""
        for name, (whole, total) in found.items():
            if name not in after.done[where]:
                self.count(f'{where}: under way, {"whole" if whole else "told to be damaged"}')
            elif whole:
                intact = total == after.done[where][name]
                self.judge.expect(intact, f'{where}: {name} is taken for whole, but its bytes have changed')
        for name, total in before.done[where].items():
            if name in after.removed:
                continue
            synced = 'done and synced' if name in before.synced else 'done, not synced'
            intact = found.get(name, (False, ''))[1] == total
            self.count(f'{where}: {synced}')
            self.count(f'{where}: {synced}, intact', int(intact))
            self.judge.expect(intact or name not in before.synced, f'{where}: {name} was synced and is not intact')


def checksum(path):
    return hashlib.sha256(path.read_bytes()).hexdigest()


def play(recorder, setting):
    cuts = Cuts(recorder, setting)
    disk = cuts.prepare()
    try:
        for number in range(1, setting.cuts + 1):
            disk = cuts.cut(number, disk)
    finally:
        cuts.box.cut_power()
        for name, total in sorted(cuts.totals.items()):
            recorder.say(f'{total:5} {name}')
