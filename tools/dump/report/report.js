// The plots and what belongs to a moment. All plots share the rows, the cursor and the time range.
'use strict';
(() => {
  const byId = (id) => document.getElementById(id);
  const make = (parent, tag, text) => {
    const element = parent.appendChild(document.createElement(tag));
    if (text !== undefined) element.textContent = text;
    return element;
  };
  const data = JSON.parse(byId('data').textContent);
  const root = document.documentElement;
  const cursor = byId('cursor');

  byId('damage').hidden = data.damage.length === 0;
  byId('damage').caption.textContent = 'The place in the file, and the times of the samples around it' +
      (data.damage.length === 1000 ? '; the first 1000, "vestra-dump csv --damage" lists all' : '');
  fillTable(byId('damage'), [['Offset', 'n'], ['Bytes', 'n'], ['Messages read', 'n'], ['After second', 'n'], ['Before second', 'n'],
    ['Reason', '']], data.damage.map(([from, to, offset, bytes, messages, reason]) =>
    [offset, bytes, messages, from === null ? 'beginning' : from.toFixed(3), to === null ? 'end' : to.toFixed(3), reason]));

  if (data.rows.length === 0) {
    byId('over-time').textContent = 'No samples.';
    return;
  }

  const onWall = data.epoch_ms !== null;
  const moment = (second) => onWall ? data.epoch_ms + second * 1000 : second;
  const clock = (second) => onWall
      ? new Date(moment(second)).toISOString().replace('T', ' ').slice(0, 19) + ' UTC' : second + ' s';
  const colour = (name) => getComputedStyle(root).getPropertyValue(name).trim();
  const figure = (y) => Math.abs(y) >= 1000 ? Math.round(y).toLocaleString('en') : String(+y.toFixed(Math.abs(y) < 10 ? 2 : 1));
  const touch = matchMedia('(pointer: coarse)').matches;
  // A swipe over a plot scrolls the page; on touch screens only the strip below the first plot zooms.
  const model = Object.assign({}, Dygraph.defaultInteractionModel);
  for (const name of ['touchstart', 'touchmove', 'touchend', 'touchcancel']) delete model[name];

  // Processes: what the C++ side calls to_json() of ProcessSeries.
  const {known, unlisted} = data.processes;
  const buckets = new Map(data.processes.buckets.map((bucket) => [bucket[0], bucket]));
  const bucketOf = (row) => buckets.get(Math.floor(row[0] / data.width) * data.width);
  const isGap = (row) => row.slice(1).every((each) => each === null);
  const percent = (ticks) => ticks / 10 / data.width;  // of all four cores
  const labels = known.map(([pid, , name]) => pid + ' ' + name);
  labels.forEach((label, i) => {
    for (let n = 2; labels.indexOf(labels[i]) < i; ++n) labels[i] = label + ' (' + n + ')';
  });
  function cpuFigures(row) {
    const [, all, ticks] = bucketOf(row) || [0, 0, data.processes.cpu.map(() => 0)];
    return [all - ticks.reduce((sum, each) => sum + each, 0), ...ticks].map(percent);
  }
  const memoryFigures = (row) => bucketOf(row) ? bucketOf(row)[3] : data.processes.memory.map(() => null);

  // labels: of the lines; figures: of a row; columns: in CSV, where there is no scale.
  const vitals = (title, types, scale, others) => Object.assign({
    title, scale, host: byId('plots'), colour: 1,
    labels: types.map((type) => data.names[type].replace(/^Temperature (.)/, (_, first) => first.toUpperCase())),
    columns: types.map((type) => data.columns[type]),
    figures: (row) => types.map((type) => row[type + 1]),
    about: ' The table "Vitals in figures" has the extremes.',
    options: {includeZero: true},
  }, others);
  const groups = [
    vitals('CPU, % of all cores', [2, 4, 3, 10], 1),
    vitals('Load and processes', [13, 1], 1),
    vitals('Memory, %', [11, 12], 1),
    vitals('Memory, MiB', [16, 14, 15], 1 / 1024),
    vitals('Context switches per second', [0], 1),
    vitals('Temperature, °C', [9, 5, 6, 7, 8], 1, {options: {}}),
  ];
  const ofProcesses = (title, lines, others) => Object.assign({
    title, scale: 1, host: byId('process-plots'), labels: lines, columns: lines, about: '', className: 'tall',
  }, others);
  if (data.processes.cpu.length > 0) {
    groups.push(ofProcesses('CPU of processes, % of all cores', ['others', ...data.processes.cpu.map((i) => labels[i])], {
      figures: cpuFigures, colour: 0,
      options: {stackedGraph: true, fillAlpha: 0.55, strokeWidth: 0.8, includeZero: true, highlightCircleSize: 2},
    }));
  }
  if (data.processes.memory.length > 0) {
    groups.push(ofProcesses('Resident memory of those that grew most, MiB', data.processes.memory.map((i) => labels[i]), {
      figures: memoryFigures, colour: 1, scale: 1 / 1024, unit: ', KiB',
      options: {connectSeparatedPoints: true, includeZero: true},
    }));
  }
  byId('of-processes').hidden = known.length === 0;

  // --- CSV of what is shown.

  function plain(value) {
    if (typeof value !== 'number') return /^ | $|[",\r\n]/.test(value ?? '') ? '"' + value.replace(/"/g, '""') + '"' : value ?? '';
    const text = String(value);
    return text.includes('e') ? value.toLocaleString('en', {useGrouping: false, maximumFractionDigits: 20}) : text;
  }
  function saveButton(parent, what, lines) {
    const button = make(parent, 'button', 'Save as CSV');
    button.type = 'button';
    button.className = 'save';
    button.setAttribute('aria-label', 'Save as CSV: ' + what);
    button.addEventListener('click', () => {
      const text = lines().map((line) => line.map(plain).join(',') + '\n').join('');
      const link = document.createElement('a');
      link.href = URL.createObjectURL(new Blob([text], {type: 'text/csv'}));
      link.download = (data.name + '-' + what).replace(/[^A-Za-z0-9.-]+/g, '_') + '.csv';
      link.click();
      setTimeout(() => URL.revokeObjectURL(link.href), 60000);
    });
  }
  function linesOf(group, graph) {
    const [from, to] = graph.xAxisRange();
    const shown = data.rows.filter((row) => moment(row[0]) >= from && moment(row[0]) <= to && !isGap(row));
    const utc = (row) => onWall ? [new Date(moment(row[0])).toISOString()] : [];
    return [['second', ...group.columns.map((column) => column + (group.unit ?? '')), ...(onWall ? ['utc'] : [])],
      ...shown.map((row) => [row[0], ...group.figures(row), ...utc(row)])];
  }

  // --- Tables of processes.

  function fillTable(table, columns, rows) {
    for (const part of [table.tHead, ...table.tBodies]) part?.remove();
    const head = make(make(table, 'thead'), 'tr');
    for (const [title, kind] of columns) {
      const cell = make(head, 'th', title);
      cell.scope = 'col';
      cell.className = kind;
    }
    const body = make(table, 'tbody');
    for (const row of rows) {
      const line = make(body, 'tr');
      row.forEach((text, i) => {
        const cell = make(line, 'td');
        cell.className = columns[i][1];
        make(cell, 'bdi', text);
      });
    }
    return [...body.rows];
  }

  let busyRow = -1;
  function showBusy(row) {
    if (row === busyRow) return;
    busyRow = row;
    const bucket = bucketOf(data.rows[row]) || [0, 0, [], [], []], list = bucket[4], rows = [];
    let left = bucket[1];
    for (let i = 0; i < list.length; i += 3) {
      const process = known[list[i]];
      rows.push([process[0], percent(list[i + 1]).toFixed(1), list[i + 2], process[2]]);
      left -= list[i + 1];
    }
    if (left > 0) rows.push(['', percent(left).toFixed(1), '', 'others']);
    byId('busy').caption.textContent = 'Busy at ' + clock(data.rows[row][0]) +
        (data.width > 1 ? ' and in the ' + (data.width - 1) + ' s after it' : '');
    fillTable(byId('busy'), [['Process', 'n'], ['CPU %', 'n'], ['Resident KiB', 'n'], ['Name', '']], rows);
    const busiest = byId('busiest');
    busiest.textContent = '';
    rows.slice(0, 3).forEach(([, usage, , name], i) => {
      busiest.append(i > 0 ? ', ' : '');
      make(busiest, 'bdi', name);
      busiest.append(' ' + usage + ' %');
    });
  }

  function showLifetimes() {
    const margin = 10;  // seconds: a process that sleeps is not sampled
    const first = data.rows[0][0], last = data.rows[data.rows.length - 1][0] + data.width, length = last - first;
    const brief = (second) => onWall ? clock(second).slice(11, 19) : clock(second);
    const came = (process) => process[3] - first > margin, went = (process) => last - process[4] > margin;
    const changed = known.filter((process) => came(process) || went(process)).sort((a, b) => a[3] - b[3] || a[4] - b[4]);
    const listed = [...changed, ...known.filter((process) => !changed.includes(process))];
    const table = byId('lifetimes'), changes = byId('changes');
    const rows = fillTable(table, [['Process', 'n'], ['Parent', 'n'], ['First seen', ''], ['Last seen', ''], ['', 'bar'], ['Name', '']],
        listed.map((process) => [process[0], process[1], came(process) ? brief(process[3]) : 'beginning',
          went(process) ? brief(process[4]) : 'end', '', process[2]]));
    rows.forEach((row, i) => {
      const bar = make(row.cells[4], 'span'), [, , , from, to] = listed[i];
      bar.style.marginLeft = Math.max((from - first) / length * 100, 0) + '%';
      bar.style.width = Math.max((to - from) / length * 100, 1) + '%';
      if (i >= changed.length) row.className = 'whole';
    });
    changes.checked = changed.length > 0;
    const choose = () => table.classList.toggle('changes', changes.checked);
    changes.addEventListener('change', choose);
    choose();
    byId('lifetimes-note').textContent = changed.length + ' of ' + known.length + ' processes came or went: first seen more than ' +
        margin + ' s after the beginning, or last seen more than ' + margin + ' s before the end.' +
        (changed.length > 40 ? ' Paper shows the first 40.' : '') +
        (unlisted > 0 ? ' ' + unlisted + ' more processes, with less CPU time, are not listed.' : '');
    saveButton(byId('lifetimes-tools'), 'lifetimes', () => [['pid', 'parent', 'name', 'first_second', 'last_second', 'cpu_seconds'],
      ...(changes.checked ? changed : listed)]);
  }

  // --- Plots.

  const graphs = [], lines = [];

  function legend(info) {
    const keys = document.createElement('div');
    for (const series of info.series) {
      if (!series.label) continue;
      const key = make(keys, 'span');
      const swatch = make(key, 'span');
      swatch.className = 'swatch';
      swatch.style.background = series.color;
      make(key, 'bdi', series.label);
      key.append(' ');
      make(key, 'b', Number.isFinite(series.y) ? figure(series.y) : '');
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

  const look = (group) => ({
    colors: group.labels.map((_, i) => colour('--series-' + (i + group.colour))),
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
  const zoom = (shown) => forOthers(null, (graph) => graph.updateOptions({dateWindow: shown, valueRange: null}));

  function showCursor(row) {
    const second = data.rows[row][0];
    cursor.textContent = clock(second);
    showBusy(row);
    graphs.forEach((graph, i) => {
      const area = graph.getArea(), x = graph.toDomXCoord(moment(second));
      lines[i].hidden = x < area.x || x > area.x + area.w;
      Object.assign(lines[i].style, {left: x + 'px', top: area.y + 'px', height: area.h + 'px'});
    });
  }
  // The tables keep the last moment, so that they can be read.
  function hideCursor() {
    cursor.textContent = '';
    byId('busiest').textContent = '';
    busyRow = -1;
    for (const line of lines) line.hidden = true;
  }

  groups.forEach((group, place) => {
    const box = make(group.host, 'figure');
    const caption = make(box, 'figcaption');
    make(caption, 'h3', group.title);
    const keys = make(caption, 'div');
    keys.className = 'keys';
    const at = make(box, 'div');
    at.className = 'plot ' + (place === 0 ? 'first' : group.className ?? '');
    at.tabIndex = 0;
    at.setAttribute('role', 'img');
    at.setAttribute('aria-label', group.title + ' over time.' + group.about + ' The arrow keys move the cursor.');
    const graph = new Dygraph(at, data.rows.map((row) => [
      onWall ? new Date(moment(row[0])) : row[0],
      ...(isGap(row) ? group.labels.map(() => NaN) : group.figures(row).map((y) => y === null ? null : y * group.scale)),
    ]), Object.assign({
      labels: ['time', ...group.labels],
      labelsDiv: keys,
      labelsUTC: true,
      legend: 'always',
      legendFormatter: legend,
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
    }, group.options, look(group)));
    graphs.push(graph);
    if (group.labels[0] === 'others') {
      const choice = make(caption, 'label'), box = make(choice, 'input');
      box.type = 'checkbox';
      box.checked = true;
      choice.append(' Others');
      box.addEventListener('change', () => graph.setVisibility(0, box.checked));
    }
    saveButton(caption, group.title, () => linesOf(group, graph));
    const line = make(at, 'div');
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

  byId('all').addEventListener('click', () => zoom(null));
  for (const finding of document.querySelectorAll('#finding-list li')) {
    const from = Number(finding.dataset.from), to = Number(finding.dataset.to), around = Math.max((to - from) / 5, 5);
    const button = make(finding.lastElementChild, 'button', 'Show in the plots');
    button.type = 'button';
    button.addEventListener('click', () => {
      const [first, last] = graphs[0].xAxisExtremes();
      zoom([Math.max(moment(from - around), first), Math.min(moment(to + around), last)]);
      byId('over-time').scrollIntoView();
    });
  }
  byId('hint').textContent = (touch ? 'Tap a plot for its figures; the strip below the first plot zooms all of them. '
      : 'Point at a plot for its figures; drag across it, or the strip below the first, to zoom all of them. ') +
      (data.width > 1 ? 'The dump is long: the plots show minimum and maximum of every ' + data.width + ' seconds. ' : '') +
      (data.damage.length > 0 ? 'Red: damaged.' : '');
  if (known.length > 0) {
    const used = data.rows.map((row) => (bucketOf(row) || [0, 0])[1]);
    showBusy(used.indexOf(Math.max(...used)));
    byId('busy').caption.prepend('The busiest moment. ');
    byId('busiest').textContent = '';
    busyRow = -1;
    showLifetimes();
  }

  function repaint() {
    graphs.forEach((graph, i) => graph.updateOptions(look(groups[i])));
  }
  matchMedia('(prefers-color-scheme: dark)').addEventListener('change', repaint);
  // Printing uses the light colours, and zooms the plots to the width of A4 and Letter paper. Do not resize them here: a
  // plot that is resized while it is being printed stays empty.
  const onPaper = (paper) => {
    root.classList.toggle('print', paper);
    repaint();
    for (const at of document.querySelectorAll('.plot')) {
      const width = at.offsetWidth;
      at.style.width = paper ? width + 'px' : '';
      at.style.zoom = paper ? 650 / width : '';
      at.style.setProperty('--label', paper && width > 650 ? '16px' : '12px');
    }
  };
  addEventListener('beforeprint', () => onPaper(true));
  addEventListener('afterprint', () => onPaper(false));
})();
