"""A connection to qemu's own control, QMP."""
import json
import socket


class QmpFailed(Exception):
    pass


class Qmp:
    """`path` is a socket's. Commands are answered one at a time; qemu lets one connection in at a time."""

    def __init__(self, path, timeout=10):
        self._connection = socket.socket(socket.AF_UNIX)
        self._connection.settimeout(timeout)
        try:
            self._connection.connect(str(path))
            self._stream = self._connection.makefile('rw')
            self._stream.readline()  # the greeting
            self.ask('qmp_capabilities')
        except (OSError, ValueError, QmpFailed):
            self._connection.close()
            raise

    def ask(self, command, **arguments):
        """Returns the answer. Events that come before it are dropped."""
        self._stream.write(json.dumps({'execute': command, 'arguments': arguments}) + '\n')
        self._stream.flush()
        while True:
            line = self._stream.readline()
            if not line:
                raise QmpFailed(f'{command}: qemu has ended')
            answer = json.loads(line)
            if 'return' in answer:
                return answer['return']
            if 'error' in answer:
                raise QmpFailed(f'{command}: {answer["error"].get("desc")}')

    def close(self):
        self._connection.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
