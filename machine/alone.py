"""One run at a time in a directory: a second one would clear the files of the first."""
import fcntl
from contextlib import contextmanager

from machine import MachineFailed


@contextmanager
def alone(directory):
    """Raises MachineFailed if another process is there already. The directory itself may be removed and made meanwhile."""
    directory.parent.mkdir(parents=True, exist_ok=True)
    with open(f'{directory}.lock', 'w') as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            raise MachineFailed(f'another run is in {directory}') from None
        yield
