"""USB sticks: images with a FAT file system, made and read without mounting them, or with ext4."""
import copy
import os
import shutil
import subprocess
from pathlib import Path

PARTITION = 1 << 20  # bytes before the file system of a stick with a partition table
SECTOR = 512
ENVIRONMENT = {**os.environ, 'MTOOLS_SKIP_CHECK': '1', 'PATH': f'{os.environ["PATH"]}:/usr/sbin:/sbin'}


def _run(*words, **options):
    return subprocess.run([str(word) for word in words], env=ENVIRONMENT, capture_output=True, check=False, **options)


class Stick:
    def __init__(self, path, label, mib, partitioned=True, read_only=False, tree=None):
        """With a directory `tree`: ext4 that has what is in there. `write`, `read_all` and `check` are for FAT."""
        self.path, self.label, self.read_only = Path(path).resolve(), label, read_only
        self.offset = PARTITION if partitioned else 0
        size = (mib << 20) + self.offset
        self.path.unlink(missing_ok=True)
        with open(self.path, 'wb') as image:
            image.truncate(size)
        if partitioned:
            # Boot records: one active partition of type "FAT32, LBA", to the end of the stick.
            entry = bytes((0x80, 0, 2, 0, 0x0c, 0, 0, 0)) + (self.offset // SECTOR).to_bytes(4, 'little') + \
                (size // SECTOR - self.offset // SECTOR).to_bytes(4, 'little')
            with open(self.path, 'r+b') as image:
                image.seek(446)
                image.write(entry + bytes(48) + b'\x55\xaa')
        if tree is None:
            made = _run('mkfs.vfat', '-n', label, '--offset', self.offset // SECTOR, self.path, mib << 10)
        else:
            made = _run('mke2fs', '-q', '-t', 'ext4', '-L', label, '-d', tree, '-E', f'offset={self.offset}', self.path, f'{mib}M')
        if made.returncode != 0:
            raise OSError(f'no file system on {self.path}: {made.stderr.decode()}')

    @property
    def _image(self):
        return f'{self.path}@@{self.offset}'

    def at(self, path):
        """The same stick as another image has it."""
        other = copy.copy(self)
        other.path = Path(path)
        return other

    def write(self, name, contents):
        """Puts a file on a stick that is not plugged."""
        result = _run('mcopy', '-i', self._image, '-', f'::/{name}', input=contents)
        if result.returncode != 0:
            raise OSError(f'mcopy: {result.stderr.decode()}')

    def read_all(self, directory):
        """Copies all files and folders of the stick into a new directory. Returns the files' paths."""
        directory = Path(directory)
        shutil.rmtree(directory, ignore_errors=True)
        directory.mkdir(parents=True)
        _run('mcopy', '-s', '-n', '-i', self._image, '::/*', f'{directory}/')
        return sorted(path for path in directory.rglob('*') if path.is_file())

    def check(self):
        """What fsck says; empty if the file system is in order."""
        part = self.path.with_suffix('.fsck')
        with open(self.path, 'rb') as image, open(part, 'wb') as file_system:
            image.seek(self.offset)
            shutil.copyfileobj(image, file_system)
        result = _run('fsck.vfat', '-n', part)
        part.unlink()
        return result.stdout.decode('utf-8', 'replace') if result.returncode != 0 else ''
