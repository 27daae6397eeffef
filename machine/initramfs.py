"""The guest's file system: a cpio archive in the kernel's newc format, made without root or a temporary tree."""
import os
import re
import stat
import subprocess
from pathlib import Path

ALIGNMENT = 4
MERGED = ('bin', 'sbin', 'lib')


class Initramfs:
    """Files are added by their path in the guest; directories that lead to them are made. As in Debian, /bin, /sbin and /lib are
    links into /usr."""

    def __init__(self):
        self._entries = {}  # path without leading slash: (mode, contents)
        for name in MERGED:
            self.directory(f'/usr/{name}')
            self._entries[name] = (stat.S_IFLNK | 0o777, f'usr/{name}'.encode())

    @staticmethod
    def _merged(path):
        path = str(path).strip('/')
        return f'usr/{path}' if path.split('/')[0] in MERGED and '/' in path else path

    def directory(self, path):
        path = self._merged(path)
        if path and path not in self._entries:
            self.directory(os.path.dirname(path))
            self._entries[path] = (stat.S_IFDIR | 0o755, b'')

    def text(self, path, contents, mode=0o644):
        self.directory(os.path.dirname(path))
        data = contents.encode() if isinstance(contents, str) else contents
        self._entries[self._merged(path)] = (stat.S_IFREG | mode, data)

    def file(self, path, source, mode=0o644):
        self.text(path, Path(source).read_bytes(), mode)

    def program(self, path, source):
        self.file(path, source, 0o755)

    def link(self, path, target):
        self.directory(os.path.dirname(path))
        self._entries[self._merged(path)] = (stat.S_IFLNK | 0o777, target.encode())

    def tree(self, path, source):
        """A directory with all that is in it: files, directories and links."""
        for entry in Path(source).rglob('*'):
            target = f'{path}/{entry.relative_to(source)}'
            if entry.is_symlink():
                self.link(target, os.readlink(entry))
            elif entry.is_dir():
                self.directory(target)
            elif entry.is_file():
                self.file(target, entry, stat.S_IMODE(entry.stat().st_mode))

    def libraries(self, programs, root, directories):
        """Adds what the programs are linked with. `directories` are those of `root` that have libraries."""
        wanted, seen = list(programs), set()
        while wanted:
            readelf = ['readelf', '-ld', str(wanted.pop())]
            dynamic = subprocess.run(readelf, capture_output=True, text=True, check=True).stdout
            loader = re.findall(r'program interpreter: (\S+?)]', dynamic)
            for path in loader:
                self.program(path, root / path.lstrip('/'))
            for name in re.findall(r'\(NEEDED\).*\[(.+)]', dynamic):
                if name in seen or any(path.endswith('/' + name) for path in loader):
                    continue
                seen.add(name)
                found = [root / directory / name for directory in directories if (root / directory / name).exists()]
                if not found:
                    raise FileNotFoundError(f'no {name} in {root}')
                self.program(f'/lib/{name}', found[0])
                wanted.append(found[0])

    def write(self, target):
        with open(target, 'wb') as archive:
            for number, (path, (mode, contents)) in enumerate([*self._entries.items(), ('TRAILER!!!', (0, b''))], 1):
                # inode, mode, user, group, links, time, size, device, device of the node, length of the name, no sum
                fields = (number, mode, 0, 0, 1, 0, len(contents), 0, 0, 0, 0, len(path.encode()) + 1, 0)
                header = b'070701' + b''.join(b'%08x' % field for field in fields) + path.encode() + b'\0'
                for part in (header, contents):
                    archive.write(part + bytes(-len(part) % ALIGNMENT))
