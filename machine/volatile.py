"""Disks that lose what was not flushed when their machine ends: nbdkit with volatile_disk.py."""
import socket
import struct
import subprocess
import time
from pathlib import Path

ENVIRONMENT = {'PATH': '/usr/sbin:/usr/bin:/sbin:/bin', 'PYTHONDONTWRITEBYTECODE': '1'}
PLUGIN = Path(__file__).resolve().parent / 'volatile_disk.py'


class VolatileDisk:
    """Serves an image. Each time that a connection ends, what was not flushed is lost, or a part of it."""

    def __init__(self, image, seed):
        self.image = Path(image).resolve()
        self.socket = self.image.with_suffix('.nbd')
        self._report = self.image.with_suffix('.cut')
        for path in (self.socket, self._report):
            path.unlink(missing_ok=True)
        self._log = open(self.image.with_suffix('.log'), 'ab')
        self._process = subprocess.Popen(
            ['nbdkit', '--foreground', '--exit-with-parent', '--unix', self.socket.name, 'python',
             str(PLUGIN), f'file={self.image}', f'seed={seed}', f'report={self._report}'],
            cwd=self.image.parent, stdin=subprocess.DEVNULL, stdout=self._log, stderr=self._log,
            env=ENVIRONMENT)
        end = time.monotonic() + 30
        while not self.socket.exists():
            if self._process.poll() is not None or time.monotonic() > end:
                raise OSError(f'nbdkit does not serve {self.image}; see {self._log.name}')
            time.sleep(0.05)

    def copy_as_cut(self):
        """Returns an image as a cut at this moment would leave it. The disk goes on."""
        with socket.socket(socket.AF_UNIX) as connection:
            connection.connect(str(self.socket))
            stream = connection.makefile('rwb')
            stream.read(18)  # the greeting
            # "Fixed newstyle" without padding; the option EXPORT_NAME.
            stream.write(struct.pack('>IQII', 3, int.from_bytes(b'IHAVEOPT', 'big'), 1, 3) + b'cut')
            stream.flush()
            stream.read(10)  # size and flags, when the copy is made
        return Path(f'{self.image}.copy')

    def end(self):
        """After the machine has ended. Returns the sectors in the cache and those of them that reached the disk."""
        end = time.monotonic() + 30
        while not (report := self._report.read_text() if self._report.exists() else '0 0\n').endswith('\n'):
            if time.monotonic() > end or self._process.poll() is not None:
                raise OSError(f'nbdkit has not ended {self.image}; see {self._log.name}')
            time.sleep(0.05)
        self._process.terminate()
        self._process.wait()
        self._log.close()
        self.socket.unlink(missing_ok=True)
        return tuple(int(word) for word in report.split())
