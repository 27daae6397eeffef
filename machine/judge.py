"""What the judges of all scenarios share: expectations, the files that the guest brought out, vestra-dump."""
import csv
import re
import subprocess
from pathlib import Path

TROUBLE = r'WARNING:|BUG:|Oops|Call Trace|refcount_t|leaked|circular locking|soft lockup|detected stall'


class Judge:
    def __init__(self, results, vestra_dump, say):
        self.results, self.vestra_dump, self.say, self.failures = Path(results), vestra_dump, say, []
        self.kernel_log(self.text('kernel.log'))

    def kernel_log(self, text):
        # FAT writes to a stick that was pulled, and the kernel warns of that itself.
        text = re.sub(r'WARNING: [^\n]* at fs/buffer\.c.*?---\[ end trace', '', text, flags=re.DOTALL)
        for line in text.splitlines():
            self.expect(not re.search(TROUBLE, line), f'the kernel complains: {line}')

    def expect(self, holds, text):
        if not holds:
            self.failures.append(text)

    def text(self, name):
        """A file of the guest's; empty if it is missing."""
        path = self.results / name
        return path.read_text('latin1') if path.exists() else ''

    def numbers(self, name):
        """A file with a name and a number in each line."""
        return {words[0]: float(words[1]) for words in map(str.split, self.text(name).splitlines())}

    def close(self, what, recorded, kernel, relative, absolute):
        """Says both, and fails where they differ by more than both limits."""
        self.say(f'{what:34} {recorded:12.1f} recorded {kernel:12.1f} in /proc')
        self.expect(abs(recorded - kernel) <= max(relative * abs(kernel), absolute),
                    f'{what}: {recorded:.1f} recorded, {kernel:.1f} in /proc')

    def frames_add_up(self, counts):
        """The counts after tracing was switched off. The module calculates how many wait, so none may."""
        self.expect(counts.get('frames', 0) > 0 and counts.get('frames_waiting') == 0,
                    f'frames made are not those read and dropped: {counts}')

    def dump(self, *words):
        return subprocess.run([str(self.vestra_dump), *words], capture_output=True, text=True, check=False)

    def clean(self, blocks):
        """Blocks as the module hands them out: no trailer, but no damage either."""
        damage = self.dump('csv', '--damage', str(blocks))
        self.expect(damage.stdout.count('\n') == 1, f'{blocks.name} is damaged: {damage.stdout}{damage.stderr}')

    def table(self, name, dump):
        return list(csv.DictReader(self.dump('csv', f'--{name}', str(dump)).stdout.splitlines()))
