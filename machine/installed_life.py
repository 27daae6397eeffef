"""memory runs short, stop and start; packages are upgraded, removed, installed again and purged; power off"""
from stick import Stick

APT = 'DEBIAN_FRONTEND=noninteractive apt-get -y -qq --no-install-recommends -o APT::Sandbox::User=root -o Dpkg::Options::=--force-confold'
CONFIGURATION = ('/etc/vestrad/keys.conf', '/opt/data/vestraDir/orna_vestra_config.xml')
# An operator has changed these.
CHANGE = 'echo "# mine" >>{0}; echo "<!-- mine -->" >>{1}'.format(*CONFIGURATION)
# A newer version of the daemon's package, in which these and another file of the configuration have changed, too.
NEWER = f'''set -e
mkdir -p /newer
cd /newer
dpkg-deb -R /packages/vestrad_*.deb tree
sed -i "s/^Version: .*/&+newer/; s/(= \\([^)]*\\))/(>= \\1)/g" tree/DEBIAN/control
for file in {' '.join(CONFIGURATION)} /etc/vestrad/system.conf; do echo "# newer" >>tree$file; done
dpkg-deb -Znone -b tree .
{APT} install ./*.deb'''
# One of the module's source that cannot be unpacked: by then dkms has taken the module of the version before away.
BROKEN = f'''mkdir -p /broken
cd /broken
dpkg-deb -R /packages/vestra-dkms_*.deb tree
sed -i "s/^Version: .*/&+broken/" tree/DEBIAN/control
printf '#!/bin/sh\\nexit 1\\n' >tree/DEBIAN/preinst
chmod 755 tree/DEBIAN/preinst
dpkg-deb -Znone -b tree .
{APT} install ./*.deb'''
PURGE = f'{APT} purge vestrad vestra-dkms vestra-tools libvestra-api1'
# What is ours in the places of packages and of the daemon.
LEFT = '''find /etc /usr /opt /var/lib /dev/shm -name "*vestra*" | grep -v "^/var/lib/\\(dpkg\\|apt\\|systemd\\)"
ls -d /etc/prd_info.ini /opt/data /opt/usr 2>/dev/null
pidof vestrad'''


def memory_drop(recorder):
    box, judge = recorder.box, recorder.judge
    before = box.output('systemctl show -p MainPID --value vestrad')
    box.run('vestra-key set memory/scenario_manager_tv/memory_drop 256')
    back = box.wait_for(f'pid=$(systemctl show -p MainPID --value vestrad) && [ "$pid" != 0 ] && [ "$pid" != {before} ]')
    judge.expect(back and recorder.answers(), 'the daemon did not come back after memory ran short')
    restarts = box.output('systemctl show -p NRestarts --value vestrad; journalctl -b -u vestrad -o cat --no-pager | grep "Main process exited"')
    judge.expect(restarts == '1', f'once the daemon should have ended itself, without a failure: {restarts}')
    judge.expect(recorder.records(), 'the daemon that came back does not record')
    recorder.say('memory ran short: the daemon ended itself, systemd brought it back')


def stop(recorder):
    box, judge = recorder.box, recorder.judge
    stopped = box.run('systemctl stop vestrad')
    judge.expect(stopped.status == 0, f'systemctl stop: {stopped.errors}')
    state = box.output('sleep 8; systemctl is-active vestrad; pidof vestrad')
    judge.expect(state == 'inactive', f'after a stop: {state}')
    judge.expect(box.run('vestra-stat --window 0 load').status == 4, 'somebody still answers')
    box.run('systemctl start vestrad')
    judge.expect(recorder.answers() and recorder.records(), 'the daemon does not record after stop and start')
    recorder.say('stopped, stayed ended, and recorded again when it was started')


def configuration_is_kept(recorder, after):
    for path in CONFIGURATION:
        text = recorder.box.output(f'cat {path}')
        recorder.judge.expect('mine' in text and 'newer' not in text, f'{after}, a change of {path} is lost:\n{text}')


def upgrade(recorder):
    box, judge = recorder.box, recorder.judge
    box.run(CHANGE)
    result = box.run(NEWER, 900)
    judge.expect(result.status == 0, f'the upgrade failed: {result.output}{result.errors}')
    judge.expect('+newer' in box.output("dpkg-query -W -f '${Version}' vestrad"), 'the newer version is not there')
    configuration_is_kept(recorder, 'after the upgrade')
    judge.expect('newer' in box.output('cat /etc/vestrad/system.conf'), 'the upgrade did not bring its own configuration')
    judge.expect(recorder.answers() and recorder.records(), 'the daemon does not record after the upgrade')
    recorder.say('upgraded: the daemon records again, changes of the configuration are still there')


def failed_upgrade(recorder):
    box, judge = recorder.box, recorder.judge
    result = box.run(BROKEN, 3600)  # dkms compiles the module again
    judge.expect(result.status != 0, 'a package that cannot be unpacked was installed')
    module = box.output('dkms status; dpkg-query -W -f "\\${Status} \\${Version}" vestra-dkms')
    judge.expect(': installed' in module and 'install ok installed' in module and 'broken' not in module,
                 f'after a failed upgrade the module is not there: {module}')
    judge.expect(recorder.records() and recorder.answers(), 'the daemon does not record after a failed upgrade')
    recorder.say('an upgrade of the module failed: the one before is there')


def removal(recorder, directory):
    box, judge = recorder.box, recorder.judge
    stick = Stick(directory / 'stick.img', 'STICK', 16)
    place = recorder.plug(stick)
    result = box.run(f'{APT} remove vestrad', 900)
    judge.expect(result.status == 0, f'the removal failed: {result.output}{result.errors}')
    judge.expect(box.run(f'[ -e {place} ] || pidof vestrad').status != 0, f'removed, the daemon or {place} is still there')
    box.pull(stick)
    result = box.run(f'{APT} install /newer/*.deb', 900)
    judge.expect(result.status == 0, f'installing again failed: {result.output}{result.errors}')
    configuration_is_kept(recorder, 'installed again')
    judge.expect(recorder.answers() and recorder.records(), 'the daemon does not record after it was installed again')
    recorder.say('removed with a stick plugged, and installed again: the daemon records')


def purge(recorder):
    box, judge = recorder.box, recorder.judge
    result = box.run(PURGE, 900)
    judge.expect(result.status == 0, f'the purge failed: {result.output}{result.errors}')
    left = box.output(LEFT).split()
    recorder.say(f'purged; left: {" ".join(left) or "nothing"}')
    judge.expect(not left, f'after the purge: {left}')


def play(recorder, setting):
    box = recorder.box
    setting.boot(box)
    recorder.judge.expect(recorder.answers(), 'the daemon does not answer')
    memory_drop(recorder)
    stop(recorder)
    upgrade(recorder)
    failed_upgrade(recorder)
    removal(recorder, setting.directory)
    purge(recorder)
    recorder.calm()
    recorder.judge.expect(box.power_off(), 'the machine did not power off')
