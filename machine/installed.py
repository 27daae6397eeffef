"""packages, unit, journal and client; a stick is plugged, the key pressed, the stick pulled during a dump"""
from recorder import CHORD
from stick import Stick

SLOW = 150_000  # bytes a second of the stick, so that a dump takes several seconds


def judge_installation(recorder):
    box, judge = recorder.box, recorder.judge
    states = box.output("dpkg-query -W -f '${Package} ${db:Status-Status}\\n' | grep vestra").splitlines()
    judge.expect(len(states) == 4 and all(line.endswith(' installed') for line in states), f'packages: {states}')
    modules = box.output('dkms status')
    judge.expect('installed' in modules, f'dkms has not built the module: {modules}')
    judge.expect(recorder.answers(), 'the daemon does not answer')
    judge.expect(box.output('systemctl is-active vestrad') == 'active', box.output('systemctl status vestrad'))
    recorder.say(f'{len(states)} packages, the unit is active; {modules}')
    start, errors = recorder.journal(), recorder.journal('-p err')
    judge.expect('before main loop' in start, f'the journal does not show the start:\n{start}')
    judge.expect('before main loop' not in errors and 'USB Error' in errors, f'the journal does not filter:\n{errors}')
    box.run('useradd -m -G vestra watcher; useradd -m stranger')
    asks = 'runuser -u {} -- vestra-stat --window 0 load'
    member, stranger = box.run(asks.format('watcher')), box.run(asks.format('stranger'))
    judge.expect(member.status == 0, f'a member of the group gets no answer: {member.errors}')
    judge.expect(stranger.status == 4, f'a user outside the group: status {stranger.status}')
    recorder.say('the journal shows the start, a member of the group gets answers, others do not')


def pull_during_dump(recorder, stick, place):
    box, judge = recorder.box, recorder.judge
    before = recorder.handled()
    box.press(*CHORD)
    judge.expect(box.wait_for('pidof mv >/dev/null', 400), 'the second dump was not begun')
    box.pull(stick)
    recorder.say('pulled during the second dump')
    judge.expect(recorder.wait_until_handled(before), 'the dump without its stick never ended')
    said = recorder.journal('| grep "mv: "')
    judge.expect(said, 'nothing says that the stick was gone')
    recorder.say(f'the journal: {said.splitlines()[0] if said else ""}')
    judge.expect(box.wait_for(f'[ ! -e {place} ]'), f'{place} is still there without its stick')
    judge.expect(recorder.records() and recorder.answers(), 'the daemon no longer records and answers')


def play(recorder, setting):
    setting.boot(recorder.box)
    box, judge = recorder.box, recorder.judge
    judge_installation(recorder)
    recorder.prepare()
    stick = Stick(setting.directory / 'first.img', 'FIRST', 64)
    place = recorder.plug(stick, SLOW)
    recorder.say(f'plugged; mounted at {place}')
    # A stick that was not there at the start is found by the first press, and written to by the second.
    if not recorder.dump_by_key('the first press') or not recorder.dump_by_key('the second press'):
        return
    notice = recorder.journal('| grep -A 2 "Successfully Done"')
    judge.expect(place in notice, f'no notice of the dump: {notice}')
    recorder.say(f'dumped: {box.output(f"ls {place}")}')
    pull_during_dump(recorder, stick, place)
    files = stick.read_all(setting.directory / 'first')
    whole = [path for path in files if recorder.whole(path)]
    judge.expect(len(whole) == 1, f'{len(whole)} dumps of {len(files)} on the stick are whole instead of one')
    sizes = ', '.join(f'{path.name} {path.stat().st_size}' for path in files)
    recorder.say(f'on the stick: {sizes}; {len(whole)} whole')
