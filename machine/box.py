"""An installed machine as one has it on the desk: it is switched on, sticks are plugged and pulled, keys are pressed."""
import base64
import subprocess
import time
from pathlib import Path

from agent import Agent, AgentFailed
from machine import KINDS, MachineFailed
from qmp import Qmp, QmpFailed

BOOT_LIMIT = 900  # seconds until the guest's agent answers; an idle host needs thirty
KEY_HELD = 150  # ms
PARAMETERS = 'loglevel=5 systemd.show_status=1 mitigations=off panic=-1 oops=panic'  # of the kernel


class Box:
    """`directory` gets serial.log, qemu.log, and in events what the guest writes to its port "vestra.events". No KVM."""

    def __init__(self, architecture, directory, say, memory=768):
        self.kind, self.directory, self.say = KINDS[architecture], Path(directory), say
        self._memory = memory
        self._process = self._agent = self._qmp = None
        self.directory.mkdir(parents=True, exist_ok=True)

    def power_on(self, kernel, initramfs, drive, limit=BOOT_LIMIT):
        """Boots from the drive, a text for qemu's -drive."""
        begin = time.monotonic()
        for name in ('agent', 'qmp'):
            (self.directory / name).unlink(missing_ok=True)
        # However this process ends, the machine ends with it.
        command = ['setpriv', '--pdeathsig', 'KILL', *self.kind.command, *self.kind.installed,
                   '-accel', self.kind.accelerator, '-m', str(self._memory),
                   '-nodefaults', '-display', 'none', '-no-reboot',  # a kernel that panics would boot as if nothing had been
                   '-kernel', str(kernel), '-initrd', str(initramfs),
                   '-append', f'{self.kind.parameters} {PARAMETERS}',
                   '-serial', 'file:serial.log', '-drive', f'if=none,id=system,{drive}',
                   '-device', f'{self.kind.disk},drive=system',
                   '-device', 'qemu-xhci,id=usb', '-device', 'usb-kbd',
                   '-device', 'virtio-serial-pci', '-chardev', 'socket,id=agent,path=agent,server=on,wait=off',
                   '-device', 'virtserialport,chardev=agent,name=org.qemu.guest_agent.0',
                   '-chardev', 'file,id=events,path=events', '-device', 'virtserialport,chardev=events,name=vestra.events',
                   '-qmp', 'unix:qmp,server=on,wait=off']
        with open(self.directory / 'qemu.log', 'ab') as log:
            self._process = subprocess.Popen(command, cwd=self.directory, stdin=subprocess.DEVNULL, stdout=log,
                                             stderr=log)
        self._qmp = self._connect(lambda: Qmp(self._socket('qmp')), OSError)
        self._agent = self._connect(lambda: Agent(self._socket('agent')), OSError)
        self._agent.wait_until_there(limit)
        self.say(f'booted in {time.monotonic() - begin:.0f} s')

    def _socket(self, name):
        # A socket's path may have 107 bytes, which the directory's own may exceed.
        return f'/proc/{self._process.pid}/cwd/{name}'

    def _connect(self, connect, refused):
        end = time.monotonic() + 30
        while True:
            try:
                return connect()
            except refused as error:
                if self._process.poll() is not None or time.monotonic() > end:
                    raise MachineFailed(f'qemu does not answer ({error}); see {self.directory}/qemu.log') from None
                time.sleep(0.1)

    def cut_power(self):
        """The machine ends at once."""
        if self._process is None:
            return
        self._process.kill()
        self._process.wait()
        for connection in (self._agent, self._qmp):
            if connection is not None:
                connection.close()
        self._process = self._agent = self._qmp = None

    def is_on(self):
        return self._process is not None and self._process.poll() is None

    def power_off(self, limit=300):
        """The guest is asked to. True if it did; a machine that broke down did not."""
        try:
            self.run('systemctl poweroff --no-block')
        except AgentFailed:
            pass  # it may be off before its agent has answered
        try:
            return self._process.wait(limit) == 0
        except subprocess.TimeoutExpired:
            return False

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.cut_power()

    def run(self, command, limit=300):
        return self._agent.run(command, limit)

    def output(self, command, limit=300):
        return self.run(command, limit).output.strip()

    def read(self, path):
        """A file of the guest's, of a few megabytes at most."""
        return base64.b64decode(self.output(f'base64 {path}'))

    def write(self, path, contents):
        """Makes a file in the guest, of a hundred kilobytes at most."""
        self.run(f'echo {base64.b64encode(contents).decode()} | base64 -d >{path}')

    def wait_for(self, command, limit=180):
        """Until a shell's condition holds in the guest. False if it does not within the limit."""
        script = (f'end=$(($(date +%s) + {limit})); '
                  f'until {command}; do [ $(date +%s) -lt $end ] || exit 1; sleep 1; done')
        try:
            return self.run(script, limit + 120).status == 0
        except AgentFailed as failure:
            raise MachineFailed(str(failure)) from None

    def plug(self, stick, bytes_a_second=0, server=None):
        """Puts the stick into a USB port; with a limit if it shall be a slow one, from a VolatileDisk if it shall lose what was
        not flushed."""
        node = stick.path.stem
        file = {'node-name': f'{node}-file', 'read-only': stick.read_only}
        if server is None:
            self._qmp.ask('blockdev-add', driver='file', filename=str(stick.path), **file)
        else:
            address = {'type': 'unix', 'path': server.socket.name}
            self._qmp.ask('blockdev-add', driver='nbd', server=address, **file)
        image = {'driver': 'raw', 'node-name': node, 'file': f'{node}-file', 'read-only': stick.read_only}
        if bytes_a_second:
            self._qmp.ask('object-add', **{'qom-type': 'throttle-group', 'id': f'{node}-rate',
                                           'limits': {'bps-total': bytes_a_second}})
            image = {**image, 'driver': 'throttle', 'throttle-group': f'{node}-rate'}
        self._qmp.ask('blockdev-add', **image)
        self._qmp.ask('device_add', driver='usb-storage', id=f'{node}-stick', drive=node, bus='usb.0')

    def pull(self, stick):
        """Whatever it does just then."""
        node = stick.path.stem
        self._qmp.ask('device_del', id=f'{node}-stick')
        end = time.monotonic() + 60
        while True:
            try:
                self._qmp.ask('blockdev-del', **{'node-name': node})
                break
            except QmpFailed:  # a transfer has not ended yet
                if time.monotonic() > end:
                    raise
                time.sleep(0.1)
        self._qmp.ask('blockdev-del', **{'node-name': f'{node}-file'})
        try:
            self._qmp.ask('object-del', id=f'{node}-rate')
        except QmpFailed:
            pass  # it was not a slow one

    def press(self, *keys):
        """All keys at the same time, by the names that QMP has for them."""
        self._qmp.ask('send-key', keys=[{'type': 'qcode', 'data': key} for key in keys], **{'hold-time': KEY_HELD})
