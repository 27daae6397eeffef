"""The recorder on an installed machine, as its operator sees it: unit, journal, keys, sticks."""

CHORD = ('ctrl', 'shift', 'f11')  # combination 87, as the package sets it
MODULE = '/sys/module/orna_vestra_kmod'
HANDLED = 'journalctl -b -t VESTRA -o cat --no-pager | grep -c "key handler 87 exited"'
DUMP_LIMIT = 420  # seconds from the press of the key; the daemon itself waits up to 250 for its chain to be full
# What an operator may set, too: a chain of 1 MiB, which is full within seconds when every process is reported, and notices.
PREPARE = '''sed -i "s/<max_file_size>10</<max_file_size>1</" /opt/data/vestraDir/orna_vestra_config.xml
touch /etc/debug
echo "options orna_vestra_kmod every_process=1 rate=50" >/etc/modprobe.d/vestra.conf
echo 1 >/sys/module/orna_vestra_kmod/parameters/every_process
echo 50 >/sys/module/orna_vestra_kmod/parameters/rate
systemctl restart vestrad'''


class Recorder:
    def __init__(self, box, judge):
        self.box, self.judge, self.say = box, judge, judge.say

    def prepare(self):
        self.box.run(PREPARE)
        self.judge.expect(self.answers(), 'the daemon does not answer after it was configured and restarted')

    def answers(self, limit=300):
        return self.box.wait_for('vestra-stat --window 0 load >/dev/null 2>&1', limit)

    def journal(self, options=''):
        return self.box.output(f'journalctl -b -t VESTRA -o cat --no-pager {options}')

    def handled(self):
        """How many presses of the key were handled since the boot."""
        return int(self.box.output(HANDLED) or 0)

    def wait_until_handled(self, before):
        return self.box.wait_for(f'[ $({HANDLED}) -gt {before} ]', DUMP_LIMIT)

    def dump_by_key(self, what):
        """Presses the key and waits until the daemon has handled it. False, and a failure, if it has not."""
        before = self.handled()
        self.box.press(*CHORD)
        done = self.wait_until_handled(before)
        self.judge.expect(done, f'{what}: the key was not handled; the journal ends with\n{self.journal("-n 20")}')
        return done

    def plug(self, stick, *how):
        """Plugs the stick, as Box.plug, and waits until one is mounted. Returns where, or an empty text and a failure."""
        self.box.plug(stick, *how)
        there = self.box.wait_for('grep -q " /run/media/vestra/" /proc/mounts')
        self.judge.expect(there, f'{stick.path.name} was not mounted:\n{self.box.output("journalctl -b -n 30 --no-pager")}')
        return self.box.output("awk '$2 ~ \"^/run/media/vestra/\" { print $2 }' /proc/mounts").split('\n')[-1]

    def count(self, name):
        """One of the module's counts."""
        return int(self.box.output(f'cat {MODULE}/counts/{name}') or 0)

    def records(self):
        """True when the daemon has read more frames."""
        before = self.count('frames_read')
        return self.box.wait_for(f'[ $(cat {MODULE}/counts/frames_read) -gt {before} ]', 60)

    def whole(self, path):
        """Whether vestra-dump finds nothing wrong with a dump."""
        return self.judge.dump('info', str(path)).returncode == 0

    def calm(self):
        """The kernel has not complained, and the module has refused no command of the daemon."""
        log = self.box.output('journalctl -k -b -o cat --no-pager')
        self.judge.expect('Linux version' in log, f'the journal does not have all of the kernel\'s messages: {log[:200]}')
        self.judge.kernel_log(log)
        refused = self.box.output(f'cat {MODULE}/counts/refused')
        self.judge.expect(refused == '0', f'commands that the module refused: "{refused}"')
