#!/bin/bash
# A report in a real browser: report_browser_test.sh PATH-OF-vestra-dump PATH-OF-write_hostile_dump. A script that is put at the end of
# the page tells what the browser made of it.
set -eu

dump_program=$1 writer=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# check WHAT WANTED GOT
check() {
    if [ "$2" = "$3" ]; then
        echo "ok      $1"
    else
        printf 'FAILED  %s\nwanted: %s\ngot:    %s\n' "$1" "$2" "$3"
        failures=$((failures + 1))
    fi
}

browser=$(command -v chromium) || { echo "no chromium: scripts/install-deps check installs it"; exit 1; }
"$writer" > "$work/0000000000_7_hostile_1795560058"
cd "$work"
"$dump_program" info --epoch name 0000000000_7_hostile_1795560058 > info || [ $? -eq 1 ]
"$dump_program" report 0000000000_7_hostile_1795560058 -o report.html 2> complaints || [ $? -eq 1 ]
check "the damage is told" "vestra-dump: 0000000000_7_hostile_1795560058: 99 bytes are damaged, in 1 place" "$(cat complaints)"

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
told() { sed -n "s/^$1 //p" seen; }
check "every plot is there" 6 "$(told plots)"
check "every plot is painted" 6 "$(told painted)"
check "all vitals are drawn" 17 "$(told vitals)"
check "one cursor on all plots" 6 "$(told cursors)"
check "the cursor's time is the wall's" "2026-11-24 22:40" "$(told time)"
check "the cursor's figures" 17 "$(told figures)"
check "a zoom of one plot is one of all" true "$(told zoomed)"
check "all of it is shown again" true "$(told back)"
check "no complaint in the page" "" "$(told trouble)"
check "no element from a name, no script but the page's and this test's" "0 5" "$(told foreign)"
check "the title" "0000000000_7_hostile_1795560058 - vitals" "$(told title)"
check "nothing reaches over a phone's edge" false "$(told wide)"
check "the tables are those of info" "$(grep -E '^ +[0-9]+ +[0-9.]+ ' info | sed -E 's/^ +//; s/ +/ /g')" "$(told row)"
check "the damage is that of info" "$(sed -n 's/^damaged: *\([0-9]*\) spans\{0,1\}, \([0-9]*\) byte.*/\1 \2/p' info)" \
    "$(sed -n 's/^fact Damaged .*: //p' seen | paste -sd ' ')"
exit $((failures > 0))
