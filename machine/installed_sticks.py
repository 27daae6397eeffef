"""sticks that are full, read-only, made to mislead, or two at a time"""
from stick import Stick

DOD = 'issue_report_agent_DOD/Vestra'


def dump_to(recorder, stick, what):
    """Plugs a stick, and presses the key until the daemon has found it and written to it. Returns where it was mounted."""
    place = recorder.plug(stick)
    for press in ('first', 'second'):
        if not recorder.dump_by_key(f'{what}, {press} press'):
            break
    return place


def pull(recorder, stick, place):
    recorder.box.pull(stick)
    recorder.judge.expect(recorder.box.wait_for(f'[ ! -e {place} ]'), f'{place} is still there without its stick')


def goes_on(recorder, what, message):
    said = recorder.journal(f'| grep -F "{message}"')
    recorder.judge.expect(message in said, f'{what}: the journal does not say "{message}"')
    recorder.judge.expect(recorder.records() and recorder.answers(), f'{what}: the daemon no longer records and answers')
    recorder.say(f'{what}: {said.splitlines()[0] if said else ""}')


def links_lead_nowhere(recorder, directory):
    box, judge, tree = recorder.box, recorder.judge, directory / 'tree'
    (tree / DOD).parent.mkdir(parents=True)
    (tree / DOD).symlink_to('/var/lib/elsewhere')
    stick = Stick(directory / 'links.img', 'LINKS', 16, tree=tree)
    box.run('mkdir /var/lib/elsewhere')
    place = recorder.plug(stick)
    judge.expect(box.run(f'test -L {place}/{DOD} && touch {place}/beside').status == 0, 'the stick with a link is not there')
    written = box.run(f'touch {place}/{DOD}/dump; ls /var/lib/elsewhere').output
    judge.expect(not written, f'a link on a stick leads to other places of the machine: {written}')
    pull(recorder, stick, place)
    recorder.say('a link on a stick leads nowhere')


def play(recorder, setting):
    setting.boot(recorder.box)
    recorder.judge.expect(recorder.answers(), 'the daemon does not answer')
    recorder.prepare()
    box, judge, directory = recorder.box, recorder.judge, setting.directory

    full = Stick(directory / 'full.img', 'FULL', 8)
    full.write('other.bin', bytes(int(7.5 * (1 << 20))))
    place = dump_to(recorder, full, 'a full stick')
    goes_on(recorder, 'a full stick', 'No space left on device')
    pull(recorder, full, place)
    files = full.read_all(directory / 'full')
    cut = [path for path in files if path.name != 'other.bin']
    judge.expect(len(files) == len(cut) + 1, f'the full stick has lost its file: {files}')
    judge.expect(not any(recorder.whole(path) for path in cut), 'a dump on a full stick is taken for whole')
    box.run('rm -f /tmp/temp-vestra*')

    locked = Stick(directory / 'locked.img', 'LOCKED', 16, read_only=True)
    # The stick before is looked for first, for 41 s; what is found then is only remembered.
    recorder.dump_by_key('after the full stick')
    place = dump_to(recorder, locked, 'a read-only stick')
    goes_on(recorder, 'a read-only stick', 'Read-only file system')
    pull(recorder, locked, place)

    links_lead_nowhere(recorder, directory)

    box.run('systemctl restart vestrad')
    judge.expect(recorder.answers(), 'the daemon does not answer after a restart')  # it has looked for sticks before
    first = Stick(directory / 'first.img', 'FIRST', 16)
    second = Stick(directory / 'second.img', 'SECOND', 16, partitioned=False)
    place = recorder.plug(first)
    box.plug(second)
    both = box.wait_for('[ $(grep -c " /run/media/vestra/" /proc/mounts) = 2 ]')
    judge.expect(both, 'not both sticks are mounted')
    recorder.dump_by_key('two sticks, first press')
    recorder.dump_by_key('two sticks, second press')
    counts = box.output('for place in /run/media/vestra/*; do ls $place | grep -c ^0; done').split()
    judge.expect(sorted(counts) == ['0', '1'], f'dumps on the two sticks: {counts}')
    pull(recorder, first, place)
    dumps = first.read_all(directory / 'first')
    judge.expect(len(dumps) == 1 and recorder.whole(dumps[0]), 'the stick that was plugged first has no whole dump')
    # The first is looked for, the second is found, and then written to.
    for press in ('first', 'second'):
        recorder.dump_by_key(f'the second stick, {press} press')
    box.pull(second)
    dumps = second.read_all(directory / 'second')
    judge.expect(len(dumps) == 1 and recorder.whole(dumps[0]), 'the second stick has no whole dump')
    recorder.say('two sticks: the first plugged got the dump; when it was pulled, the second')
