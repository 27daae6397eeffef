"""A disk with a write cache that a power cut empties: a plugin for nbdkit.

    nbdkit -f -U SOCKET python machine/volatile_disk.py file=IMAGE seed=NUMBER report=FILE

The image has what the machine flushed. When the connection ends, the rest is lost, or partly reached the disk before: the
sectors that were written first, or any, also those of one write apart. An orderly end has flushed before, and loses nothing.
A connection to the export "cut" does nothing to the disk: it writes into IMAGE.copy what a cut at this moment would leave.
`report` gets a line: the sectors that were in the cache and those of them that reached the disk. Before, it has "in use".
"""
import os
import random
import subprocess
from pathlib import Path

import nbdkit

SECTOR = 512
API_VERSION = 2

_settings = {}
_image = -1
_cache = {}  # by the number of the sector, the first written first


def config(key, value):
    _settings[key] = value


def config_complete():
    global _image
    _image = os.open(_settings['file'], os.O_RDWR | os.O_CLOEXEC)
    random.seed(int(_settings['seed']))


def open(readonly):  # noqa: A001 (the plugin's interface)
    if nbdkit.export_name() == 'cut':
        copy = _settings['file'] + '.copy'
        subprocess.run(['cp', '--sparse=auto', '--reflink=auto', _settings['file'], copy], check=True)
        descriptor = os.open(copy, os.O_WRONLY | os.O_CLOEXEC)
        _store(descriptor, _survivors())
        os.close(descriptor)
        return 'cut'
    Path(_settings['report']).write_text('in use')
    return 'disk'


def get_size(handle):
    return os.fstat(_image).st_size


def block_size(handle):
    return (SECTOR, 4096, 0xffffffff)


def can_write(handle):
    return True


def can_flush(handle):
    return True


def pread(handle, buffer, offset, flags):
    view = memoryview(buffer)
    done = os.preadv(_image, [view], offset)
    if done < len(view):
        view[done:] = bytes(len(view) - done)
    if not _cache:
        return
    for position in range(0, len(view), SECTOR):
        data = _cache.get((offset + position) // SECTOR)
        if data is not None:
            view[position:position + SECTOR] = data


def pwrite(handle, buffer, offset, flags):
    data = bytes(buffer)
    for position in range(0, len(data), SECTOR):
        number = (offset + position) // SECTOR
        _cache.pop(number, None)
        _cache[number] = data[position:position + SECTOR]


def _store(descriptor, sectors):
    for number, data in sectors:
        os.pwrite(descriptor, data, number * SECTOR)


def _survivors():
    """Of the cached sectors those that a cut at this moment finds on the disk."""
    sectors = list(_cache.items())
    fate = random.choice(('none', 'first', 'any'))
    if fate == 'none':
        return []
    if fate == 'first':
        return sectors[:random.randint(0, len(sectors))]
    return [sector for sector in sectors if random.random() < 0.5]


def flush(handle, flags):
    _store(_image, _cache.items())
    _cache.clear()


def close(handle):
    if handle == 'cut':
        return
    reached = _survivors()
    _store(_image, reached)
    Path(_settings['report']).write_text(f'{len(_cache)} {len(reached)}\n')
    _cache.clear()
