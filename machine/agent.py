"""Commands in a running guest, through qemu's guest agent on a serial port of the virtual machine."""
import base64
import json
import socket
import time
from dataclasses import dataclass

POLL = 0.4  # seconds between two looks whether a command has ended


class AgentFailed(Exception):
    pass


@dataclass(frozen=True)
class Result:
    status: int
    output: str
    errors: str


class Agent:
    def __init__(self, path):
        self._connection = socket.socket(socket.AF_UNIX)
        self._connection.connect(str(path))
        self._rest = b''

    def close(self):
        self._connection.close()

    def wait_until_there(self, limit):
        """The guest's end may open late, and what was sent before it did may be lost or not."""
        end = time.monotonic() + limit
        number = 0
        while time.monotonic() < end:
            number += 1
            self._send('guest-sync', id=number)
            try:
                while self._receive(10).get('return') != number:
                    pass
                return
            except TimeoutError:
                continue
        raise AgentFailed(f'the guest does not answer within {limit} s')

    def run(self, command, limit=120):
        """A shell's command, as root. Raises AgentFailed if it takes longer than `limit` seconds; it then goes on."""
        end = time.monotonic() + limit
        process = self._ask('guest-exec', path='/bin/sh', arg=['-c', command], **{'capture-output': True})['pid']
        while True:
            state = self._ask('guest-exec-status', pid=process)
            if state['exited']:
                texts = (base64.b64decode(state.get(name, '')) for name in ('out-data', 'err-data'))
                return Result(state.get('exitcode', -1), *(text.decode('utf-8', 'replace') for text in texts))
            if time.monotonic() > end:
                raise AgentFailed(f'takes longer than {limit} s: {command}')
            time.sleep(POLL)

    def _ask(self, command, **arguments):
        self._send(command, **arguments)
        try:
            answer = self._receive(120)
        except TimeoutError:
            raise AgentFailed(f'{command}: the guest does not answer') from None
        if 'return' not in answer:
            raise AgentFailed(f'{command}: {answer}')
        return answer['return']

    def _send(self, command, **arguments):
        try:
            self._connection.sendall(json.dumps({'execute': command, 'arguments': arguments}).encode() + b'\n')
        except OSError as error:
            raise AgentFailed(f'{command}: {error}') from None

    def _receive(self, limit):
        end = time.monotonic() + limit
        while b'\n' not in self._rest:
            self._connection.settimeout(max(end - time.monotonic(), 0.01))
            try:
                data = self._connection.recv(1 << 16)
            except TimeoutError:
                raise
            except OSError as error:
                raise AgentFailed(str(error)) from None
            if not data:
                raise AgentFailed('the machine is off')
            self._rest += data
        line, self._rest = self._rest.split(b'\n', 1)
        return json.loads(line)
