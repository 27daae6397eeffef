// The plots. All of them share the points, the cursor and the time range.
'use strict';
(() => {
  const data = JSON.parse(document.getElementById('data').textContent);
  const groups = [
    {title: 'CPU, % of all cores', types: [2, 4, 3, 10], zero: true},
    {title: 'Load and processes', types: [13, 1], zero: true},
    {title: 'Memory, %', types: [11, 12], zero: true},
    {title: 'Memory, MiB', types: [16, 14, 15], scale: 1 / 1024, zero: true},
    {title: 'Context switches per second', types: [0], zero: true},
    {title: 'Temperature, °C', types: [9, 5, 6, 7, 8]},
  ];
  const root = document.documentElement;
  const plots = document.getElementById('plots');
  const cursor = document.getElementById('cursor');
  const hint = document.getElementById('hint');
  if (data.rows.length === 0) {
    plots.textContent = 'No samples.';
    document.getElementById('bar').hidden = true;
    return;
  }

  const onWall = data.epoch_ms !== null;
  const moment = (second) => onWall ? data.epoch_ms + second * 1000 : second;
  const colour = (name) => getComputedStyle(root).getPropertyValue(name).trim();
  const figure = (y) => Math.abs(y) >= 1000 ? Math.round(y).toLocaleString('en') : String(+y.toFixed(Math.abs(y) < 10 ? 2 : 1));
  const touch = matchMedia('(pointer: coarse)').matches;
  // A swipe over a plot scrolls the page; on touch screens only the strip below the first plot zooms.
  const model = Object.assign({}, Dygraph.defaultInteractionModel);
  for (const name of ['touchstart', 'touchmove', 'touchend', 'touchcancel']) delete model[name];
  const graphs = [], lines = [];

  function legend(info) {
    const keys = document.createElement('div');
    for (const series of info.series) {
      if (!series.label) continue;
      const key = keys.appendChild(document.createElement('span'));
      const swatch = key.appendChild(document.createElement('span'));
      swatch.className = 'swatch';
      swatch.style.background = series.color;
      key.append(series.label + ' ');
      key.appendChild(document.createElement('b')).textContent = Number.isFinite(series.y) ? figure(series.y) : '';
    }
    return keys.innerHTML;
  }

  function paintDamage(context, area, graph) {
    context.fillStyle = colour('--damage');
    for (const [before, after] of data.damage) {
      const left = before === null ? area.x : graph.toDomXCoord(moment(before));
      const right = after === null ? area.x + area.w : graph.toDomXCoord(moment(after));
      const width = Math.max(right - left, 2);
      if (left > area.x + area.w || left + width < area.x) continue;
      const begin = Math.max(left, area.x);
      context.fillRect(begin, area.y, Math.min(left + width, area.x + area.w) - begin, area.h);
    }
  }

  const look = (count) => ({
    colors: Array.from({length: count}, (_, i) => colour('--series-' + (i + 1))),
    gridLineColor: colour('--grid'),
    axisLineColor: colour('--line'),
    rangeSelectorPlotStrokeColor: colour('--series-1'),
    rangeSelectorPlotFillColor: colour('--series-1'),
    rangeSelectorPlotFillGradientColor: colour('--card'),
    rangeSelectorBackgroundStrokeColor: colour('--line'),
    rangeSelectorForegroundStrokeColor: colour('--ink'),
  });

  let busy = false;  // changes to the other plots must not come back
  function forOthers(graph, action) {
    if (busy) return;
    busy = true;
    for (const other of graphs) if (other !== graph) action(other);
    busy = false;
  }

  function showCursor(row) {
    const second = data.rows[row][0];
    cursor.textContent = onWall
        ? new Date(moment(second)).toISOString().replace('T', ' ').slice(0, 19) + ' UTC' : second + ' s';
    graphs.forEach((graph, i) => {
      const area = graph.getArea(), x = graph.toDomXCoord(moment(second));
      lines[i].hidden = x < area.x || x > area.x + area.w;
      Object.assign(lines[i].style, {left: x + 'px', top: area.y + 'px', height: area.h + 'px'});
    });
  }
  function hideCursor() {
    cursor.textContent = '';
    for (const line of lines) line.hidden = true;
  }

  groups.forEach((group, place) => {
    const box = plots.appendChild(document.createElement('figure'));
    const caption = box.appendChild(document.createElement('figcaption'));
    caption.appendChild(document.createElement('h3')).textContent = group.title;
    const keys = caption.appendChild(document.createElement('div'));
    keys.className = 'keys';
    const at = box.appendChild(document.createElement('div'));
    at.className = place === 0 ? 'plot first' : 'plot';
    at.tabIndex = 0;
    at.setAttribute('role', 'img');
    at.setAttribute('aria-label', group.title + ' over time. The table "Vitals in figures" has the extremes. ' +
        'The arrow keys move the cursor.');
    const scale = group.scale || 1;
    const graph = new Dygraph(at, data.rows.map((row) => [
      onWall ? new Date(moment(row[0])) : row[0],
      ...group.types.map((type) => row[type + 1] === null ? null : row[type + 1] * scale),
    ]), Object.assign({
      labels: ['time', ...group.types.map((type) => data.names[type].replace(/^Temperature (.)/, (_, first) => first.toUpperCase()))],
      labelsDiv: keys,
      labelsUTC: true,
      legend: 'always',
      legendFormatter: legend,
      includeZero: Boolean(group.zero),
      interactionModel: model,
      underlayCallback: paintDamage,
      strokeWidth: 1.4,
      highlightCircleSize: 3,
      xRangePad: 4,
      axes: {
        x: {axisLabelWidth: 70, pixelsPerLabel: 80},
        y: {axisLabelWidth: 46, pixelsPerLabel: 28, axisLabelFormatter: (y) => figure(y)},
      },
      showRangeSelector: place === 0,
      rangeSelectorHeight: 34,
      rangeSelectorAlpha: 0.5,
      drawCallback: (me, initial) => {
        if (initial) return;
        const shown = me.isZoomed('x') ? me.xAxisRange() : null;
        forOthers(me, (other) => other.updateOptions({dateWindow: shown}));
      },
      highlightCallback: (event, x, points, row) => {
        forOthers(graph, (other) => other.setSelection(row));
        showCursor(row);
      },
      unhighlightCallback: () => {
        forOthers(graph, (other) => other.clearSelection());
        hideCursor();
      },
    }, look(group.types.length)));
    graphs.push(graph);
    const line = at.appendChild(document.createElement('div'));
    line.className = 'line';
    line.hidden = true;
    lines.push(line);
    at.addEventListener('keydown', (event) => {
      const step = {ArrowLeft: -1, ArrowRight: 1}[event.key];
      if (step === undefined) return;
      event.preventDefault();
      const range = graph.xAxisRange(), inside = (row) => moment(row[0]) >= range[0] && moment(row[0]) <= range[1];
      let row = graph.getSelection() + step;
      if (graph.getSelection() < 0) row = data.rows.findIndex(inside);
      if (row < 0 || row >= data.rows.length || !inside(data.rows[row])) return;
      for (const each of graphs) each.setSelection(row);
      showCursor(row);
    });
  });

  document.getElementById('all').addEventListener('click', () => {
    busy = true;
    for (const graph of graphs) graph.updateOptions({dateWindow: null, valueRange: null});
    busy = false;
  });
  hint.textContent = (touch ? 'Tap a plot for its figures; the strip below the first plot zooms all of them. '
      : 'Point at a plot for its figures; drag across it, or the strip below the first, to zoom all of them. ') +
      (data.width > 1 ? 'The dump is long: the plots show minimum and maximum of every ' + data.width + ' seconds. ' : '') +
      (data.damage.length > 0 ? 'Red: damaged.' : '');

  function repaint() {
    graphs.forEach((graph, i) => graph.updateOptions(look(groups[i].types.length)));
  }
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', repaint);
  // Printing uses the light colours; dygraphs fits the plots to the page. Do not resize them here: a plot that is resized
  // while it is being printed stays empty.
  const onPaper = (paper) => {
    root.classList.toggle('print', paper);
    repaint();
  };
  addEventListener('beforeprint', () => onPaper(true));
  addEventListener('afterprint', () => onPaper(false));
})();
