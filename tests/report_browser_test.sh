#!/bin/bash
# Checks a report in a real browser: report_browser_test.sh PATH-OF-vestra-dump PATH-OF-write_dump. A script at the end of the
# page reports what the browser shows.
set -eu

dump_program=$1 writer=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# check WHAT EXPECTED ACTUAL
check() {
    if [ "$2" = "$3" ]; then
        echo "ok      $1"
    else
        printf 'FAILED  %s\nexpected: %s\nactual:   %s\n' "$1" "$2" "$3"
        failures=$((failures + 1))
    fi
}

browser=$(command -v chromium) || { echo "no chromium: scripts/install-deps check installs it"; exit 1; }
"$writer" hostile > "$work/0000000000_7_hostile_1795560058"
cd "$work"
"$dump_program" info --epoch name 0000000000_7_hostile_1795560058 > info || [ $? -eq 1 ]
"$dump_program" report 0000000000_7_hostile_1795560058 -o report.html 2> /dev/null || [ $? -eq 1 ]

cat > probe.html <<'PROBE'
<script>
addEventListener('load', () => {
  const all = (where) => [...document.querySelectorAll(where)];
  const seen = [];
  const tell = (name, value) => seen.push(name + ' ' + value);
  const plots = all('.plot');
  const labels = (plot) => [...plot.querySelectorAll('.dygraph-axis-label-x')].map((label) => label.textContent).join(',');
  tell('plots', plots.length);
  tell('painted', plots.filter((plot) => [...plot.querySelectorAll('canvas')].some((canvas) =>
    canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height).data.filter((byte, i) => i % 4 === 3 && byte > 0).length > 500)).length);
  tell('vitals', all('.keys .swatch').length);
  const canvas = plots[2].querySelectorAll('canvas')[1], box = canvas.getBoundingClientRect();
  const mouse = (type, part, target) => target.dispatchEvent(new MouseEvent(type, {bubbles: true, cancelable: true, button: 0,
    clientX: box.left + box.width * part, clientY: box.top + box.height / 2, screenX: box.width * part, screenY: 9, view: window}));
  mouse('mousemove', 0.8, canvas);
  tell('cursors', all('.line').filter((line) => !line.hidden).length);
  tell('time', document.getElementById('cursor').textContent.replace(/:\d\d UTC/, ''));
  tell('figures', all('.keys b').filter((figure) => figure.textContent !== '').length);
  const before = labels(plots[0]);
  mouse('mousedown', 0.5, canvas);
  mouse('mousemove', 0.7, document);
  mouse('mouseup', 0.7, document);
  tell('zoomed', plots.every((plot) => labels(plot) === labels(plots[2]) && labels(plot) !== before));
  document.getElementById('all').click();
  tell('back', plots.every((plot) => labels(plot) === before));
  tell('trouble', document.getElementById('trouble').textContent);
  tell('foreign', all('img:not(.dygraph-rangesel-zoomhandle), i, b:not(.keys b)').length + ' ' + document.scripts.length);
  tell('title', document.title);
  tell('wide', document.documentElement.scrollWidth > innerWidth);
  for (const row of all('#top-cpu tbody tr, #top-memory tbody tr')) tell('row', [...row.cells].map((cell) => cell.textContent).join(' '));
  for (const fact of all('#facts div')) tell('fact', fact.innerText.replace(/\n+/g, ': '));
  document.documentElement.dataset.seen = btoa(unescape(encodeURIComponent(seen.join('\n'))));
});
</script>
PROBE
cat report.html probe.html > probed.html
timeout 180 "$browser" --headless --no-sandbox --disable-gpu --disable-quic --no-first-run --disable-background-networking \
    --disable-component-update --disable-sync --user-data-dir="$work/profile" --window-size=390,844 --enable-logging=stderr \
    --virtual-time-budget=10000 --dump-dom "file://$work/probed.html" > dom 2> browser.log || { cat browser.log; exit 1; }
check "no line on the console" "" "$(grep CONSOLE browser.log || true)"
sed -n '0,/<head>/s/.*data-seen="\([^"]*\)".*/\1/p' dom | base64 -d > seen
seen() { sed -n "s/^$1 //p" seen; }
check "every plot is there" 6 "$(seen plots)"
check "every plot is painted" 6 "$(seen painted)"
check "every vital is drawn" 17 "$(seen vitals)"
check "all plots show the cursor" 6 "$(seen cursors)"
check "the cursor shows wall-clock time" "2026-11-24 22:40" "$(seen time)"
check "the cursor shows every figure" 17 "$(seen figures)"
check "zooming one plot zooms all" true "$(seen zoomed)"
check "the button shows everything again" true "$(seen back)"
check "no error in the page" "" "$(seen trouble)"
check "no element from a name, no script but the page's and this test's" "0 5" "$(seen foreign)"
check "the title" "0000000000_7_hostile_1795560058 - vitals" "$(seen title)"
check "the page fits a phone" false "$(seen wide)"
check "the tables have the rows of info" "$(grep -E '^ +[0-9]+ +[0-9.]+ ' info | sed -E 's/^ +//; s/ +/ /g')" "$(seen row)"
check "the damage is the same as in info" "$(sed -n 's/^damaged: *\([0-9]*\) spans\{0,1\}, \([0-9]*\) byte.*/\1 \2/p' info)" \
    "$(sed -n 's/^fact Damaged .*: //p' seen | paste -sd ' ')"
exit $((failures > 0))
