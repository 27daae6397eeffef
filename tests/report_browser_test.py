#!/usr/bin/env python3
"""Reports in a real browser. A script at the end of each page reports what the browser shows."""
import base64
import csv
import io
import json
import os
import re
import subprocess
import tempfile
import unittest
from pathlib import Path

BUILD = Path(os.environ.get('VESTRA_BUILD', Path(__file__).resolve().parents[1] / 'build/release'))
TRAILER = b'T-RX-1107.2/eu/24_TVX\r\n\x17'
HOSTILE = '0000000000_7_hostile_1795560058'
PAGE_LIMIT = 1 << 20  # bytes

HELPERS = r'''
const all = (where) => [...document.querySelectorAll(where)];
const text = (element) => element.textContent;
const table = (where) => all(where + ' tbody tr').map((row) => [...row.cells].map(text));
const shown = () => all('.keys b').filter((figure) => text(figure) !== '').length;
const labels = (plot) => [...plot.querySelectorAll('.dygraph-axis-label-x')].map(text).join(',');
const saved = [];
URL.createObjectURL = (blob) => { saved.push(blob); return '#'; };
HTMLAnchorElement.prototype.click = () => {};
const mouse = (type, part, target, plot) => {
  const box = plot.querySelectorAll('canvas')[1].getBoundingClientRect();
  target.dispatchEvent(new MouseEvent(type, {bubbles: true, cancelable: true, button: 0, clientX: box.left + box.width * part,
    clientY: box.top + box.height / 2, screenX: box.width * part, screenY: 9, view: window}));
};
const point = (plot, part) => mouse('mousemove', part, plot.querySelectorAll('canvas')[1], plot);
const page = () => ({
  title: document.title, trouble: text(document.getElementById('trouble') ?? document.body).trim(),
  foreign: all('img:not(.dygraph-rangesel-zoomhandle), i, b:not(.keys b)').length, scripts: document.scripts.length,
  wide: document.documentElement.scrollWidth > innerWidth,
});
'''
REPORT = r'''
const plots = all('.plot'), seen = page();
seen.plots = plots.length;
seen.painted = plots.filter((plot) => [...plot.querySelectorAll('canvas')].some((canvas) =>
  canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data.filter((byte, i) => i % 4 === 3 && byte > 0).length > 500)).length;
seen.lines = all('#plots .keys .swatch').length;
point(plots[2], 0.8);
seen.cursors = all('.line').filter((line) => !line.hidden).length;
seen.time = text(document.getElementById('cursor'));
seen.figures = shown();
seen.busy = table('#busy');
const before = labels(plots[0]);
mouse('mousedown', 0.5, plots[2].querySelectorAll('canvas')[1], plots[2]);
mouse('mousemove', 0.7, document, plots[2]);
mouse('mouseup', 0.7, document, plots[2]);
seen.zoomed = plots.every((plot) => labels(plot) === labels(plots[2]) && labels(plot) !== before);
for (const button of all('figure .save')) button.click();
document.getElementById('all').click();
seen.back = plots.every((plot) => labels(plot) === before);
for (const button of all('figure .save')) button.click();
seen.saved = await Promise.all(saved.map((blob) => blob.text()));
seen.tops = [...table('#top-cpu'), ...table('#top-memory')];
seen.facts = Object.fromEntries(all('#facts div').map((fact) => [text(fact.children[0]), text(fact.children[1])]));
seen.findings = all('#finding-list li bdi').map(text);
all('#finding-list button')[0]?.click();
seen.led = labels(plots[0]) !== before;
seen.unknown = all('#unknown-list li').map(text);
seen.lifetimes = table('#lifetimes');
'''
INDEX = r'''
const seen = page(), click = (n) => { all('#dumps th button')[n].click(); return all('#dumps tbody tr').map((row) => row.cells[n].textContent); };
seen.models = click(1);
seen.cpu = click(5);
seen.least = click(5);
seen.damage = click(9);
seen.names = all('#dumps tbody tr').map((row) => [text(row.cells[0]), row.cells[0].querySelector('a')?.getAttribute('href') ?? null]);
'''


def dump_tool(*words):
    return subprocess.run([BUILD / 'tools/vestra-dump', *words], capture_output=True, check=False)


def made(*words):
    return subprocess.run([BUILD / 'tests/write_dump', *map(str, words)], stdout=subprocess.PIPE, check=True).stdout


def browse(page, script, size='390,844'):
    """What `script` finds in the page, in `seen`."""
    probed = Path('probed.html').absolute()
    probed.write_text(Path(page).read_text() + '<script>' + HELPERS + "addEventListener('load', async () => {" + script +
                      'document.documentElement.dataset.seen = btoa(unescape(encodeURIComponent(JSON.stringify(seen))));'
                      '});</script>')
    browser = subprocess.run(
        ['chromium', '--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
         '--disable-background-networking', '--disable-component-update', '--disable-sync', '--enable-logging=stderr',
         '--user-data-dir=' + str(Path('profile').absolute()), '--window-size=' + size, '--virtual-time-budget=20000',
         '--dump-dom', probed.as_uri()], capture_output=True, text=True, timeout=200, check=True)
    console = [line for line in browser.stderr.splitlines() if 'CONSOLE' in line]
    assert not console, console
    found = re.search('data-seen="([^"]*)"', browser.stdout)
    return json.loads(base64.b64decode(found[1]))


def rows_of(text):
    return list(csv.DictReader(io.StringIO(text)))


class ReportInABrowser(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        os.chdir(directory.name)

    def test_hostile_names_are_texts_and_a_damaged_dump_has_every_plot(self):
        Path(HOSTILE).write_bytes(made('hostile'))
        info = dump_tool('info', '--epoch', 'name', HOSTILE).stdout.decode()
        self.assertEqual(dump_tool('report', HOSTILE, '-o', 'page.html').returncode, 1)
        seen = browse('page.html', REPORT)
        self.assertEqual([seen[what] for what in ('title', 'trouble', 'foreign', 'scripts', 'wide')],
                         [HOSTILE + ' - vitals', '', 0, 5, False])
        self.assertEqual([seen[what] for what in ('plots', 'painted', 'cursors', 'lines', 'zoomed', 'back')],
                         [8, 8, 8, 17, True, True])
        self.assertGreater(seen['figures'], 17)
        self.assertRegex(seen['time'], '2026-11-24 22:40:.. UTC')
        self.assertIn(',utc\n', seen['saved'][0])
        rows = [line.split(None, 6) for line in info.split('\n') if re.match(r' +\d+ +[0-9.]+ ', line)]
        self.assertEqual([[cell.strip() for cell in row] for row in seen['tops']], rows)
        damage = re.search(r'damaged: +(\d+) spans?, (\d+) byte', info)
        self.assertEqual((seen['facts']['Damaged spans'], seen['facts']['Damaged bytes']), damage.groups())
        self.assertEqual((seen['facts']['Build'], seen['facts']['Model']), ('<i>build', '<i>model'))
        self.assertIn('From 2026-11-24T22:40:18.999Z to 2026-11-24T22:40:28.999Z there are no samples: 10 seconds are missing.',
                      seen['unknown'])
        findings = json.loads(dump_tool('explain', '--json', HOSTILE).stdout)['findings']
        self.assertEqual(seen['findings'], [finding['text'] + '.' for finding in findings])
        self.assertTrue(findings and seen['led'])
        self.assertEqual({row[5].strip() for row in seen['lifetimes']}, {row[6] for row in rows})

    def test_moments_and_saved_figures_are_those_of_csv_and_the_page_is_small(self):
        Path('dump').write_bytes(made('steady', 400, 65536, 300, 1) + TRAILER)
        self.assertEqual(dump_tool('report', 'dump', '-o', 'page.html').returncode, 0)
        self.assertLess(Path('page.html').stat().st_size, PAGE_LIMIT)
        seen = browse('page.html', REPORT, '1200,900')
        vitals = {row['second']: row for row in rows_of(dump_tool('csv', '--vitals', 'dump').stdout.decode())}
        samples = rows_of(dump_tool('csv', '--processes', 'dump').stdout.decode())
        ticks, last = {}, {}
        for row in samples:
            key = int(row['time_ns']) // 10**9, row['pid'], row['name']
            ticks[key] = ticks.get(key, 0) + int(row['used_ticks'])
            last[key] = row['rss_kib']

        # The table at the cursor.
        second = int(seen['time'].split()[0])
        there = sorted(((used, pid, name) for (at, pid, name), used in ticks.items() if at == second), reverse=True)
        shown = [(round(10 * float(row[1])), row[0], row[3]) for row in seen['busy']]
        self.assertEqual(len(shown), 11)
        self.assertEqual([used for used, _, _ in shown[:10]], [used for used, _, _ in there[:10]])
        self.assertLessEqual(set(shown[:10]), set(there))
        self.assertEqual(shown[10], (sum(used for used, _, _ in there[10:]), '', 'others'))
        for pid, _, rss, name in seen['busy'][:10]:
            self.assertEqual(rss, last[second, pid, name])

        # What is saved: zoomed, and all of it.
        plots = len(seen['saved']) // 2
        for zoomed, whole in zip(seen['saved'][:plots], seen['saved'][plots:]):
            self.assertLess(0, zoomed.count('\n'))
            self.assertLess(zoomed.count('\n'), 80)
            self.assertEqual(whole.count('\n'), 1 + len(vitals))
            self.assertIn(zoomed.split('\n', 1)[1], whole)
        for text in seen['saved'][plots:plots + 6]:
            for row in rows_of(text):
                self.assertEqual(row, {column: vitals[row['second']][column] for column in row})
        cpu, memory = (rows_of(text) for text in seen['saved'][plots + 6:])
        for row in cpu + memory:
            at = int(row.pop('second'))
            for column, figure in row.items():
                pid, _, name = column.replace(', KiB', '').partition(' ')
                if 'KiB' in column:
                    self.assertEqual(figure, last.get((at, pid, name), ''))
                elif column != 'others':
                    self.assertAlmostEqual(float(figure), ticks.get((at, pid, name), 0) / 10)

    def test_index_lists_hostile_files_sorts_and_stays_in_its_directory(self):
        names = ['<img src=x onerror=alert(1)>_1795560058', 'a/one', 'a_one', 'A_ONE', '@{table}@', b'\xff"\n&amp;'.decode(errors='surrogateescape'), 'index']
        for name in ['a/bad', *names]:
            path = Path('dumps', name)
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(made('steady', 8, 4096, 1 + names.index(name), 1) + TRAILER if name in names else bytes([255] * 100))
        Path('dumps/a/hostile').write_bytes(made('hostile'))
        Path('kept').write_text('kept')
        Path('dumps/out').mkdir()
        os.symlink('../../kept', 'dumps/out/a_one.report.html')
        for _ in range(2):  # the second time, the pages are there
            self.assertEqual(dump_tool('report', 'dumps', '-o', 'dumps/out/').returncode, 2)
        self.assertEqual(Path('kept').read_text(), 'kept')
        seen = browse('dumps/out/index.html', INDEX, '1200,900')
        self.assertEqual([seen[what] for what in ('title', 'foreign', 'scripts')], ['dumps - dumps', 0, 2])
        self.assertEqual(len(seen['names']), len(names) + 2)
        self.assertEqual(seen['names'][0][0], 'a/hostile')
        self.assertEqual(seen['names'][-1], ['a/bad', None])
        pages = [page for _, page in seen['names'] if page]
        self.assertEqual(sorted(pages + ['index.html']), sorted(os.listdir('dumps/out')))
        self.assertEqual(len(set(pages)), len(names) + 1)
        self.assertEqual(seen['models'], ['<i>model'] + ['24_TVX'] * len(names) + ['-'])
        figures = [float(figure) for figure in seen['cpu'] if figure != '-']
        self.assertEqual(figures, sorted(figures, reverse=True))
        self.assertEqual(seen['least'][0], str(figures[-1]))
        self.assertEqual([cell for cell in seen['cpu'] if cell == '-'], seen['cpu'][len(figures):])


if __name__ == '__main__':
    unittest.main(verbosity=2)
