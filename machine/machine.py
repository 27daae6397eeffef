"""A machine that qemu emulates, without KVM: boots a kernel with an initramfs and brings results out."""
import queue
import shutil
import subprocess
import tarfile
import threading
import time
from dataclasses import dataclass
from pathlib import Path

from qmp import Qmp, QmpFailed

RESULTS_SIZE = 64 << 20  # bytes of the disk that brings the results out
DONE = '== the results are on the disk'
YOURS = '== the console is yours'  # from here on, until the guest's next step


class MachineFailed(Exception):
    pass


@dataclass(frozen=True)
class Kind:
    """What depends on the architecture."""
    preset: str  # the build of the programs
    command: tuple
    accelerator: str
    parameters: str  # of the kernel
    disk: str
    library_directories: tuple
    installed: tuple  # more options of qemu, for a machine with a system on its disk


# qemu 7.2 with a thread for each processor may keep a breakpoint in its translation that the kernel sets and removes
# while it switches a tracepoint: once in a few hundred switches, all x86 processors loop in the scheduler. With one
# thread this has not been seen. A kernel that checks its timer panics where this machine is too busy to deliver it in time, and one that
# waits 21 s for a processor calls it stalled. A PS/2 keyboard would get the keys that are sent. Debian's kernel for ARM has no addresses of
# more than 32 bits, where qemu would put PCI. A machine with a system has one processor: four of ARM, on a host of two, once waited minutes for
# each other while one of them loaded a module.
KINDS = {
    'amd64': Kind('release', ('qemu-system-x86_64', '-M', 'q35'), 'tcg,thread=single',
                  'console=ttyS0 no_timer_check rcupdate.rcu_cpu_stall_timeout=60', 'virtio-blk-pci',
                  ('lib/x86_64-linux-gnu', 'usr/lib/x86_64-linux-gnu'),
                  ('-machine', 'i8042=off', '-smp', '1')),
    'armhf': Kind('arm', ('qemu-system-arm', '-M', 'virt', '-cpu', 'cortex-a15'), 'tcg',
                  'console=ttyAMA0 rcupdate.rcu_cpu_stall_timeout=60', 'virtio-blk-device',
                  ('lib/arm-linux-gnueabihf', 'usr/lib/arm-linux-gnueabihf'),
                  ('-machine', 'highmem=off', '-smp', '1')),
}


class Machine:
    """One run. `directory` gets serial.log and results/, both cleared first."""

    def __init__(self, architecture, directory):
        self.kind = KINDS[architecture]
        self.directory = Path(directory)
        self.results = self.directory / 'results'
        self._disk = self.directory / 'results.disk'
        self._qmp = self.directory / 'qmp'
        self._process = None
        self._terminal = None  # a socket that gets what the serial line brings

    def run(self, kernel, initramfs, parameters, limit, say, *, processors=4, memory=512, options=(), drive=None):
        """Boots and runs a scenario, for `limit` seconds at most. Calls say(line) for each step of the guest, and drive()
        when the guest leaves its console to a person. `memory` is in MiB."""
        if not shutil.which(self.kind.command[0]):
            raise MachineFailed(f'{self.kind.command[0]} is missing (scripts/install-deps machine)')
        shutil.rmtree(self.results, ignore_errors=True)
        self.results.mkdir(parents=True)
        self._qmp.unlink(missing_ok=True)
        with open(self._disk, 'wb') as disk:
            disk.truncate(RESULTS_SIZE)
        # However this process ends, the machine ends with it. If the disk here is full, the guest goes on with an error instead of waiting.
        command = ['setpriv', '--pdeathsig', 'KILL', *self.kind.command, '-accel', self.kind.accelerator,
                   '-smp', str(processors), '-m', str(memory), '-nodefaults', '-display', 'none', '-no-reboot',
                   '-kernel', str(kernel), '-initrd', str(initramfs),
                   '-append', f'{self.kind.parameters} quiet panic=-1 oops=panic {parameters}',
                   '-chardev', 'stdio,id=serial,signal=off', '-serial', 'chardev:serial',
                   '-drive', f'if=none,id=results,format=raw,werror=report,file={self._disk.name}',
                   '-device', f'{self.kind.disk},drive=results',
                   '-qmp', f'unix:{self._qmp.name},server=on,wait=off', *options]
        with open(self.directory / 'qemu.log', 'wb') as log:
            self._process = subprocess.Popen(command, cwd=self.directory, stdin=subprocess.PIPE,
                                             stdout=subprocess.PIPE, stderr=log)
        try:
            done = self._follow(limit, say, drive)
        finally:
            self._process.kill()
            self._process.wait()
        if not done:
            raise MachineFailed(f'the guest ended before its end; see {self.directory}/serial.log and qemu.log')
        try:
            with tarfile.open(self._disk) as archive:
                archive.extractall(self.results)
        except tarfile.TarError as error:
            raise MachineFailed(f'the results on the disk are not whole: {error}') from None
        self._disk.unlink()

    def connect(self, terminal):
        """Connects a socket with the serial line, both ways."""
        self._terminal = terminal

        def type_keys():
            while keys := terminal.recv(4096):
                self._process.stdin.write(keys)
                self._process.stdin.flush()

        threading.Thread(target=type_keys, daemon=True).start()

    def _follow(self, limit, say, drive):
        """Until the guest is off. True if it said that all was done."""
        lines = queue.Queue()
        threading.Thread(target=self._read_serial, args=(lines,), daemon=True).start()
        end = time.monotonic() + limit
        done = False
        while True:
            try:
                line = lines.get(timeout=max(end - time.monotonic(), 0))
            except queue.Empty:
                state = self._ask('query-status')
                self._ask('quit')
                raise MachineFailed(f'not done after {limit} s, the machine is {state}; '
                                    f'see {self.directory}/serial.log') from None
            if line is None:
                return done
            if line.startswith('== '):
                say(line[3:])
            done = done or line == DONE
            if line == YOURS and drive:
                try:
                    drive()
                except (AssertionError, subprocess.CalledProcessError) as failure:
                    raise MachineFailed(f'at the console: {failure}') from failure
                self._terminal = None

    def _read_serial(self, lines):
        rest = b''
        try:
            with open(self.directory / 'serial.log', 'wb') as log:
                while chunk := self._process.stdout.read1():
                    log.write(chunk)
                    log.flush()
                    if terminal := self._terminal:
                        terminal.sendall(chunk)
                    *whole, rest = (rest + chunk).split(b'\n')
                    for line in whole:
                        lines.put(line.decode('latin1').strip())
        finally:  # also when the disk is full: nobody would read the line any more
            lines.put(None)

    def _ask(self, command):
        """One QMP command. Returns its answer as a text; a machine that does not answer is no failure here."""
        try:
            # A socket's path may have 107 bytes, which the directory's own may exceed.
            with Qmp(f'/proc/{self._process.pid}/cwd/{self._qmp.name}', timeout=5) as qmp:
                return str(qmp.ask(command).get('status', 'answering'))
        except (OSError, ValueError, QmpFailed):
            return 'not answering'
