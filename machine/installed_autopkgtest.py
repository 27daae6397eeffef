"""debian/tests, by autopkgtest inside the machine"""
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
# autopkgtest takes a folder with nothing but debian/tests for a built source tree; what the tests depend on is there by then.
RUN = '''DEBIAN_FRONTEND=noninteractive apt-get install -y -qq -o APT::Sandbox::User=root /tmp/*.deb &&
chmod +x /tree/debian/tests/* && exec autopkgtest --summary-file=/tmp/summary /tree -- null 2>&1'''


def play(recorder, setting):
    box, judge = recorder.box, recorder.judge
    setting.boot(box)
    judge.expect(recorder.answers(), 'the daemon does not answer')
    for package in (ROOT / 'build/debian').glob('python3-vestra_*.deb'):
        box.write(f'/tmp/{package.name}', package.read_bytes())
    box.run('mkdir -p /tree/debian/tests')
    for file in (ROOT / 'debian/tests').iterdir():
        box.write(f'/tree/debian/tests/{file.name}', file.read_bytes())
    result = box.run(RUN, 1800)
    (setting.directory / 'autopkgtest.log').write_text(result.output + result.errors)
    summary = box.output('cat /tmp/summary')
    recorder.say(f'autopkgtest: {summary}')
    # Another status than 0 also tells of a test that was skipped.
    judge.expect(result.status == 0 and summary, f'autopkgtest: status {result.status}, see {setting.directory}/autopkgtest.log')
