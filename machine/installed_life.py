"""memory runs short, stop and start, upgrade and purge of the packages, power off"""

# A newer version of the daemon's package, with the same files.
UPGRADE = '''set -e
mkdir -p /newer
cd /newer
dpkg-deb -R /packages/vestrad_*.deb tree
sed -i "s/^Version: .*/&+newer/; s/(= \\([^)]*\\))/(>= \\1)/g" tree/DEBIAN/control
dpkg-deb -Znone -b tree .
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends -o APT::Sandbox::User=root ./*.deb'''
PURGE = "DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq vestrad vestra-dkms vestra-tools libvestra-api1"
# What is ours in the places of packages and of the daemon.
LEFT = '''find /etc /usr /opt /var/lib /dev/shm -name "*vestra*" | grep -v "^/var/lib/\\(dpkg\\|apt\\|systemd\\)"
pgrep -x vestrad'''


def memory_drop(recorder):
    box, judge = recorder.box, recorder.judge
    before = box.output('systemctl show -p MainPID --value vestrad')
    box.run('vestra-key set memory/scenario_manager_tv/memory_drop 256')
    back = box.wait_for(f'pid=$(systemctl show -p MainPID --value vestrad) && [ "$pid" != 0 ] && [ "$pid" != {before} ]')
    judge.expect(back and recorder.answers(), 'the daemon did not come back after memory ran short')
    judge.expect('status=9/KILL' in box.output('journalctl -b -u vestrad --no-pager'), 'the daemon did not end itself')
    judge.expect(recorder.records(), 'the daemon that came back does not record')
    recorder.say('memory ran short: the daemon ended itself, systemd brought it back')


def stop(recorder):
    box, judge = recorder.box, recorder.judge
    stopped = box.run('systemctl stop vestrad')
    judge.expect(stopped.status == 0, f'systemctl stop: {stopped.errors}')
    state = box.output('sleep 8; systemctl is-active vestrad; pgrep -x vestrad')
    judge.expect(state == 'inactive', f'after a stop: {state}')
    judge.expect(box.run('vestra-stat --window 0 load').status == 4, 'somebody still answers')
    box.run('systemctl start vestrad')
    judge.expect(recorder.answers() and recorder.records(), 'the daemon does not record after stop and start')
    recorder.say('stopped, stayed ended, and recorded again when it was started')


def packages(recorder):
    box, judge = recorder.box, recorder.judge
    box.run('echo "# mine" >>/etc/vestrad/keys.conf')
    result = box.run(UPGRADE, 900)
    judge.expect(result.status == 0, f'the upgrade failed: {result.output}{result.errors}')
    judge.expect('+newer' in box.output("dpkg-query -W -f '${Version}' vestrad"), 'the newer version is not there')
    judge.expect('# mine' in box.output('cat /etc/vestrad/keys.conf'), 'the upgrade lost a change to the configuration')
    judge.expect(recorder.answers() and recorder.records(), 'the daemon does not record after the upgrade')
    recorder.say('upgraded: the daemon records again, a change to the configuration is still there')
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
    packages(recorder)
    recorder.calm()
    box.run('systemctl poweroff --no-block')
    recorder.judge.expect(box.wait_until_off(300), 'the machine did not power off')
