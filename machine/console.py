#!/usr/bin/env python3
"""The guest's serial line as a person's terminal: tmux keeps the screen, as in the tests of the programs."""
import os
import select
import socket
import sys
import tempfile
import tty
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / 'tests'))
import terminal  # noqa: E402  (the path comes first)

terminal.PATIENCE = 300  # seconds: the guest's processor is slow, and this machine may be busy


class Console(terminal.Terminal):
    def __init__(self, machine):
        with tempfile.TemporaryDirectory() as directory, socket.socket(socket.AF_UNIX) as listening:
            path = f'{directory}/socket'
            listening.bind(path)
            listening.listen()
            listening.settimeout(terminal.PATIENCE)
            super().__init__(sys.executable, __file__, path)
            machine.connect(listening.accept()[0])


def copy(connection):
    """Between this program's terminal and the connection, until that ends."""
    tty.setraw(0)
    while True:
        for ready in select.select([0, connection], [], [])[0]:
            if ready == 0:
                connection.sendall(os.read(0, 4096))
                continue
            chunk = connection.recv(65536)
            if not chunk:
                return
            while chunk:
                chunk = chunk[os.write(1, chunk):]


if __name__ == '__main__':
    with socket.socket(socket.AF_UNIX) as client:
        client.connect(sys.argv[1])
        copy(client)
