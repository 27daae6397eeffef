"""robustness, DOD, history and filter, through vestra-key and the real directories"""
from recorder import MODULE
from stick import Stick

REPORTS = '/var/lib/reports'
HISTORY = '''sqlite3 /opt/usr/home/owner/share/tvhistory.db \
    "PRAGMA integrity_check; SELECT count(*), count(DISTINCT PROCESS_NAME) FROM PROCESS_INFO"'''
DOD = 'issue_report_agent_DOD/Vestra'


def robustness(recorder, name, directory):
    """Returns the dump, brought to the host, or None."""
    box, judge = recorder.box, recorder.judge
    box.run(f'mkdir -p {REPORTS}; vestra-key set system/vestra/robust "{REPORTS}|{name}|4711"')
    there = box.wait_for(f'ls {REPORTS}/0000000000_4711_{name}_* >/dev/null 2>&1')
    judge.expect(there, f'no robustness dump:\n{recorder.journal("-n 20")}')
    if not there:
        return None
    dump = directory / name
    dump.write_bytes(box.read(box.output(f'ls {REPORTS}/0000000000_4711_{name}_*').split('\n')[0]))
    judge.expect(recorder.whole(dump), f'the robustness dump {name} is not whole')
    recorder.say(f'robustness: {dump.stat().st_size} bytes')
    return dump


def history(recorder):
    box, judge = recorder.box, recorder.judge
    box.run('vestra-key set memory/SHM/trigger_db_write 1')
    done = box.wait_for('[ "$(vestra-key get memory/SHM/trigger_db_write)" = 0 ]', 600)  # fifty transactions
    judge.expect(done, f'the fill did not end:\n{recorder.journal("-n 20")}')
    answer = box.output(HISTORY).split('\n')
    judge.expect(answer[0] == 'ok' and answer[-1].split('|')[0] not in ('', '0'), f'the history: {answer}')
    recorder.say(f'history: {answer[-1].replace("|", " rows, ")} processes')


def continuous(recorder, directory):
    box, judge = recorder.box, recorder.judge
    stick = Stick(directory / 'dod.img', 'DOD', 64)
    place = recorder.plug(stick)
    box.run('systemctl restart vestrad')  # a stick that is there at the start is known
    judge.expect(recorder.answers(), 'the daemon does not answer after a restart')
    box.run('vestra-key set system/DOD/test_monitor 1')
    there = box.wait_for(f'[ $(ls "{place}/{DOD}" 2>/dev/null | wc -l) -ge 2 ]', 400)
    judge.expect(there, f'no DOD dumps:\n{recorder.journal("-n 30")}')
    # The stick is let go first, so that no dump is under way.
    box.run(f'vestra-key set system/DOD/test_monitor 0; sleep 10; systemctl stop vestra-stick@{place.rsplit("/", 1)[1]}')
    box.pull(stick)
    files = [path for path in stick.read_all(directory / 'dod') if DOD in str(path)]
    whole = [path for path in files if recorder.whole(path)]
    judge.expect(len(files) >= 2 and len(whole) == len(files), f'{len(whole)} of {len(files)} DOD dumps are whole')
    recorder.say(f'DOD: {", ".join(path.name for path in whole)}')


def process_filter(recorder, directory):
    box, judge = recorder.box, recorder.judge
    before = recorder.count('writes')
    box.run('printf "qemu-ga\\nvestrad\\n" >/tmp/list && ln /tmp/list /tmp/vestra_processes/processes.txt')
    sent = box.wait_for(f'[ $(cat {MODULE}/counts/writes) -gt {before} ] && [ ! -e /tmp/vestra_processes/processes.txt ]')
    judge.expect(sent, f'the list was not sent to the module:\n{recorder.journal("-n 20")}')
    box.run('sleep 10')
    dump = robustness(recorder, 'filtered', directory)
    if dump is None:
        return
    rows = recorder.judge.table('processes', dump)
    newest = max((float(row['time_ns']) for row in rows), default=0)
    seen = {row['name'] for row in rows if float(row['time_ns']) > newest - 5e9}
    judge.expect(seen and seen <= {'qemu-ga', 'vestrad'}, f'after the filter, the last seconds have {seen}')
    recorder.say(f'filter: of {len({row["name"] for row in rows})} names, the last seconds have {", ".join(sorted(seen))}')


def play(recorder, setting):
    setting.boot(recorder.box)
    recorder.judge.expect(recorder.answers(), 'the daemon does not answer')
    recorder.prepare()
    recorder.box.run('sleep 10')
    robustness(recorder, 'tuner', setting.directory)
    history(recorder)
    continuous(recorder, setting.directory)
    process_filter(recorder, setting.directory)
