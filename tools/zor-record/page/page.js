'use strict';

// What the page does: zooming and moving, searching, showing what is pointed at, and the tables.

const LEAST_SPAN = 200; // nanoseconds across the view

function byId(id) {
  return document.getElementById(id);
}

/** An element with texts or elements in it; a recording's texts are never taken for markup. */
function element(tag, className, ...parts) {
  const made = document.createElement(tag);
  if (className) made.className = className;
  made.append(...parts);
  return made;
}

function countText(number, what) {
  return number.toLocaleString('en') + ' ' + what + (number === 1 ? '' : 's');
}

class Page {
  constructor(data) {
    this.model = new Model(data);
    this.canvas = byId('canvas');
    this.view = byId('view');
    this.drawing = new Drawing(this.model, this.canvas);
    this.hit = -1;
    this.lastUnfinished = -1;
    this.pending = false;
    this.transform = d3.zoomIdentity;
    this.zoom = d3.zoom().on('zoom', () => {
      const moved = d3.event.transform.y - this.transform.y;
      const isDrag = d3.event.sourceEvent && d3.event.transform.k === this.transform.k;
      this.transform = d3.event.transform;
      if (isDrag && moved !== 0) this.view.scrollTop -= moved;
      this.redrawSoon();
    });
    this.writeHead();
    this.writeLegend();
    this.writePath();
    this.writeTop();
    d3.select(this.canvas).call(this.zoom).on('dblclick.zoom', null);
    this.listen();
    this.fitSize();
  }

  // The view

  fitSize() {
    const width = Math.max(420, this.view.clientWidth);
    const wanted = this.drawing.height + AXIS + 4;
    const most = Math.max(220, Math.round(window.innerHeight * 0.62));
    const height = Math.min(wanted, most);
    this.view.style.height = height + 2 + 'px';
    byId('room').style.height = Math.max(0, wanted - height) + 'px';
    this.base = d3.scaleLinear().domain(this.wholeSpan()).range([LANE_NAMES, width]);
    this.zoom.scaleExtent([1, Math.max(1, (this.model.to - this.model.from) / LEAST_SPAN)])
      .extent([[LANE_NAMES, 0], [width, height]])
      .translateExtent([[LANE_NAMES, -1e9], [width, 1e9]]);
    this.drawing.resize(width, height, window.devicePixelRatio || 1);
    this.redraw();
  }

  wholeSpan() {
    const margin = (this.model.to - this.model.from) * 0.01;
    return [this.model.from - margin, this.model.to + margin];
  }

  redraw() {
    this.pending = false;
    const begun = performance.now();
    const x = this.transform.rescaleX(this.base);
    const stats = this.drawing.draw(x, this.view.scrollTop);
    stats.milliseconds = performance.now() - begun;
    this.stats = stats;
    const [from, to] = x.domain();
    byId('range').textContent = `${durationText(to - from)} shown` + (stats.arrowsLeftOut === 0 ? '' :
      `; zoom in for ${countText(stats.arrowsLeftOut, 'arrow')}`);
  }

  redrawSoon() {
    if (this.pending) return;
    this.pending = true;
    requestAnimationFrame(() => this.pending && this.redraw());
  }

  /** Shows an interval, with some room around it. */
  show(from, to) {
    const room = Math.max((to - from) * 0.15, LEAST_SPAN);
    const [whole, end] = this.base.domain();
    const left = Math.max(from - room, whole);
    const right = Math.min(to + room, end);
    const k = Math.min((end - whole) / (right - left), this.zoom.scaleExtent()[1]);
    const middle = this.base((left + right) / 2);
    const [first, last] = this.base.range();
    const shift = (first + last) / 2 - middle * k;
    d3.select(this.canvas).call(this.zoom.transform, d3.zoomIdentity.translate(shift, 0).scale(k));
    this.redraw();
  }

  /** Scrolls to a lane. */
  reveal(lane) {
    const top = this.view.scrollTop;
    const room = this.drawing.viewHeight - AXIS;
    if (lane.top < top || lane.top + lane.height > top + room) {
      this.view.scrollTop = Math.max(0, lane.top - room / 3);
    }
  }

  /** Shows a call, in its surroundings. */
  goTo(call) {
    const { begin, duration, lane } = this.model.calls;
    const [from, to] = this.transform.rescaleX(this.base).domain();
    const end = begin[call] + duration[call];
    this.select(call);
    this.reveal(this.model.lanes[lane[call]]);
    // The view stays as wide as it is if the call can be seen in it.
    const pixels = duration[call] / (to - from) * (this.drawing.width - LANE_NAMES);
    if (begin[call] >= from && end <= to && pixels > 6) {
      this.redraw();
    } else {
      const span = pixels > 6 && duration[call] < to - from ? to - from : Math.max(duration[call] * 12, LEAST_SPAN * 5);
      const middle = (begin[call] + end) / 2;
      this.show(Math.max(middle - span / 2, this.model.from), Math.min(middle + span / 2, this.model.to));
    }
  }

  select(call) {
    this.drawing.selected = call;
    const details = byId('details');
    details.replaceChildren();
    if (call >= 0) details.append(...this.describe(call));
  }

  // Tables and texts

  writeHead() {
    const { data } = this.model;
    document.title = `${data.process} (${data.pid})`;
    byId('title').textContent = `${data.process} (${data.pid})`;
    const began = new Date(Number(BigInt(data.began_ns) / 1000000n));
    const facts = [began.toISOString().replace('T', ' ').replace(/\.\d+Z/, ' UTC'),
      countText(data.records, 'record'), countText(this.model.count, 'call'),
      countText(this.model.lanes.length, 'thread'), durationText(data.to_ns - data.from_ns)];
    if (data.goes_on) facts.push('goes on');
    if (data.overwritten_bytes > 0) facts.push('older records overwritten');
    if (data.gaps > 0) facts.push(countText(data.gaps, 'gap'));
    byId('facts').append(facts.join(' · '));
    if (this.model.unfinished.length > 0) {
      byId('facts').append(' · ', element('span', 'bad', this.model.unfinished.length + ' unfinished'));
    }
    if (data.circles.length > 0) {
      const names = data.circles.map((circle) => circle.map((call) =>
        this.model.lanes[this.model.calls.lane[call]].name));
      byId('facts').append(' · ', element('span', 'bad',
        'circle: ' + names.map((each) => [...each, each[0]].join(' → ')).join('; ')));
    }
    byId('show-path').disabled = data.path === null;
    byId('show-unfinished').disabled = this.model.unfinished.length === 0;
  }

  writeLegend() {
    const sample = (draw) => {
      const canvas = element('canvas', '');
      canvas.width = 60;
      canvas.height = 28;
      canvas.style.width = '30px';
      canvas.style.height = '14px';
      const pen = canvas.getContext('2d');
      pen.scale(2, 2);
      draw(pen);
      return canvas;
    };
    const bar = (fill, edge) => (pen) => {
      pen.fillStyle = typeof fill === 'string' ? fill : fill(pen);
      pen.fillRect(0, 1, 30, 12);
      pen.strokeStyle = edge || 'transparent';
      pen.strokeRect(0.5, 1.5, 29, 11);
    };
    const arrow = (colour, width) => (pen) => {
      pen.strokeStyle = pen.fillStyle = colour;
      pen.lineWidth = width;
      pen.beginPath();
      pen.moveTo(2, 3);
      pen.lineTo(24, 10);
      pen.stroke();
      pen.beginPath();
      pen.moveTo(29, 12);
      pen.lineTo(20, 12.5);
      pen.lineTo(23, 5.5);
      pen.fill();
    };
    const entries = [
      ['handles an event', bar(COLOURS.handling)],
      ['sends and waits for the reply', bar((pen) => stripes(pen, '#ffffff', '#8fb3d9', 7), COLOURS.waitEdge)],
      ['sends', bar(COLOURS.send)],
      ['from a send to its handling', arrow('rgba(60, 72, 88, 0.9)', 1)],
      ['has not finished', bar((pen) => stripes(pen, COLOURS.pale, COLOURS.red, 6), COLOURS.red)],
      ['waits in a circle', arrow(COLOURS.red, 2.5)],
      ['critical path', (pen) => {
        pen.fillStyle = COLOURS.path;
        pen.fillRect(0, 4, 30, 6);
        pen.fillStyle = COLOURS.ink;
        pen.fillRect(0, 9, 30, 1);
      }],
      ['hit of the search', (pen) => {
        pen.fillStyle = COLOURS.ink;
        pen.fillRect(0, 0, 30, 14);
        pen.fillStyle = COLOURS.hit;
        pen.fillRect(1, 1, 28, 12);
        pen.fillStyle = COLOURS.handling;
        pen.fillRect(4, 4, 22, 6);
      }],
    ];
    byId('legend').replaceChildren(...entries.map(
      ([text, draw]) => element('span', '', sample(draw), text)));
  }

  /** Fills a table. Columns are names, those of numbers with a # in front. */
  static fill(table, columns, rows, onRow) {
    const isNumber = columns.map((name) => name.startsWith('#'));
    const head = element('tr', '', ...columns.map(
      (name, i) => element('th', isNumber[i] ? 'number' : '', name.replace(/^#/, ''))));
    const body = rows.map((cells, at) => {
      const row = element('tr', '', ...cells.map((cell, i) => {
        const isLast = i === cells.length - 1;
        return element('td', isNumber[i] ? 'number' : isLast ? 'what' : '', cell);
      }));
      row.addEventListener('click', () => onRow(at));
      return row;
    });
    table.replaceChildren(element('thead', '', head), element('tbody', '', ...body));
  }

  writePath() {
    const { path } = this.model.data;
    if (path === null) {
      byId('path-head').textContent = 'No call has one.';
      return;
    }
    byId('path-head').textContent = `Where the time went of the call that ${path.thread} ` +
      `(${path.thread_id}) ${path.call === undefined ? '' : this.model.verb(path.call)}: type ` +
      `${this.model.typeText(path.call)}, ${durationText(path.duration_ns)}` +
      (path.finished ? '' : ', not finished');
    Page.fill(byId('path'), ['#from', '#duration', '#share', 'thread', 'what'],
      path.path.map((stretch) => [momentText(stretch.from_ns), durationText(stretch.duration_ns),
        (100 * stretch.duration_ns / Math.max(1, path.duration_ns)).toFixed(1) + ' %',
        stretch.thread, '  '.repeat(stretch.depth) + stretch.what]),
      (at) => this.show(path.path[at].from_ns, path.path[at].from_ns + path.path[at].duration_ns));
  }

  writeTop() {
    const { top } = this.model.data;
    const time = (durations, which) => durations.count === 0 ? '–' : durationText(durations[which]);
    Page.fill(byId('top'),
      ['task', 'type', '#handled', '#unfinished', '#waits: median', '#p99', '#greatest',
        '#handling: median', '#p99', '#greatest'],
      top.map((row) => [row.task, row.type_name ? `${row.type} ${row.type_name}` : String(row.type),
        row.handling.count.toLocaleString('en'),
        row.unfinished === 0 ? '' : element('span', 'bad', String(row.unfinished)),
        ...['waiting', 'handling'].flatMap((what) =>
          ['median_ns', 'p99_ns', 'greatest_ns'].map((which) => time(row[what], which)))]),
      (at) => this.search(`${top[at].task} ${top[at].type}`));
  }

  /** What there is to say of a call. */
  describe(call) {
    const { lane } = this.model.calls;
    const thread = this.model.lanes[lane[call]];
    const list = element('dl', 'facts');
    for (const [word, text] of this.model.facts(call)) {
      list.append(element('dt', '', word), element('dd', '', text));
    }
    const head = element('b', '', `${thread.name} (${thread.thread}) ${this.model.verb(call)} ` +
      this.model.typeText(call));
    const trouble = this.model.trouble(call);
    return trouble === '' ? [head, list] : [head, element('span', 'bad', trouble), list];
  }

  // Searching

  search(text) {
    if (byId('search').value !== text) byId('search').value = text;
    const { drawing } = this;
    const hits = this.model.search(text);
    drawing.hits.fill(0);
    for (const call of hits) drawing.hits[call] = 1;
    drawing.hitList = hits;
    this.hit = -1;
    this.writeHits();
    this.redraw();
    return hits.length;
  }

  writeHits() {
    const { length } = this.drawing.hitList;
    const isEmpty = byId('search').value.trim() === '';
    byId('hits').textContent = isEmpty ? '' : length === 0 ? 'no hit' :
      this.hit < 0 ? countText(length, 'hit') : `${this.hit + 1} of ${countText(length, 'hit')}`;
    byId('next').disabled = byId('previous').disabled = length === 0;
  }

  /** Goes to the next hit, or with -1 to the one before; round at the ends. */
  step(by) {
    const { length } = this.drawing.hitList;
    if (length === 0) return -1;
    this.hit = this.hit < 0 && by < 0 ? length - 1 : (this.hit + by + length) % length;
    this.writeHits();
    this.goTo(this.drawing.hitList[this.hit]);
    return this.drawing.hitList[this.hit];
  }

  nextUnfinished() {
    const { unfinished } = this.model;
    if (unfinished.length === 0) return;
    this.lastUnfinished = (this.lastUnfinished + 1) % unfinished.length;
    this.goTo(unfinished[this.lastUnfinished]);
  }

  showPath() {
    const { path } = this.model.data;
    if (path === null) return;
    this.select(path.call);
    this.reveal(this.model.lanes[this.model.calls.lane[path.call]]);
    this.show(path.from_ns, path.from_ns + path.duration_ns);
  }

  // What the user does

  scaleBy(factor) {
    d3.select(this.canvas).call(this.zoom.scaleBy, factor);
  }

  moveBy(share) {
    d3.select(this.canvas).call(this.zoom.translateBy,
      -share * (this.drawing.width - LANE_NAMES) / this.transform.k, 0);
  }

  fit() {
    d3.select(this.canvas).call(this.zoom.transform, d3.zoomIdentity);
  }

  point(event) {
    const box = this.canvas.getBoundingClientRect();
    return this.drawing.callAt(event.clientX - box.left, event.clientY - box.top);
  }

  hover(event) {
    const call = this.point(event);
    const tooltip = byId('tooltip');
    if (call !== this.drawing.hovered) {
      this.drawing.hovered = call;
      tooltip.hidden = call < 0;
      if (call >= 0) tooltip.replaceChildren(...this.describe(call));
      this.redrawSoon();
    }
    if (call >= 0) {
      const { width, height } = tooltip.getBoundingClientRect();
      const left = event.clientX + 16 + width > window.innerWidth ? event.clientX - width - 12 : event.clientX + 16;
      const top = event.clientY + 18 + height > window.innerHeight ? event.clientY - height - 10 : event.clientY + 18;
      tooltip.style.left = Math.max(4, left) + 'px';
      tooltip.style.top = Math.max(4, top) + 'px';
    }
  }

  leave() {
    this.drawing.hovered = -1;
    byId('tooltip').hidden = true;
    this.redrawSoon();
  }

  press(event) {
    if (event.ctrlKey || event.metaKey || event.altKey) return;
    if (event.target === byId('search')) {
      if (event.key === 'Enter') this.step(event.shiftKey ? -1 : 1);
      if (event.key === 'Escape') this.search('');
      return;
    }
    const actions = {
      '+': () => this.scaleBy(1.5), '=': () => this.scaleBy(1.5), '-': () => this.scaleBy(1 / 1.5),
      '0': () => this.fit(), p: () => this.showPath(), u: () => this.nextUnfinished(),
      n: () => this.step(1), N: () => this.step(-1), '/': () => byId('search').focus(),
      ArrowLeft: () => this.moveBy(-0.2), ArrowRight: () => this.moveBy(0.2),
    };
    if (actions[event.key]) {
      event.preventDefault();
      actions[event.key]();
    }
  }

  listen() {
    byId('zoom-in').addEventListener('click', () => this.scaleBy(1.5));
    byId('zoom-out').addEventListener('click', () => this.scaleBy(1 / 1.5));
    byId('fit').addEventListener('click', () => this.fit());
    byId('show-path').addEventListener('click', () => this.showPath());
    byId('show-unfinished').addEventListener('click', () => this.nextUnfinished());
    byId('search').addEventListener('input', (event) => this.search(event.target.value));
    byId('next').addEventListener('click', () => this.step(1));
    byId('previous').addEventListener('click', () => this.step(-1));
    this.canvas.addEventListener('mousemove', (event) => this.hover(event));
    this.canvas.addEventListener('mouseleave', () => this.leave());
    this.canvas.addEventListener('click', (event) => {
      this.select(this.point(event));
      this.redraw();
    });
    this.view.addEventListener('scroll', () => this.redrawSoon());
    window.addEventListener('resize', () => this.fitSize());
    document.addEventListener('keydown', (event) => this.press(event));
    this.writeHits();
  }
}

// For tests, and for whoever looks from the browser's console.
window.zorPage = (() => {
  const page = new Page(JSON.parse(byId('data').textContent));
  return {
    stats: () => ({ ...page.stats }),
    redraw: () => { page.redraw(); return page.stats.milliseconds; },
    search: (text) => page.search(text),
    step: (by) => page.step(by),
    goTo: (call) => page.goTo(call),
    show: (from, to) => page.show(from, to),
    showPath: () => page.showPath(),
    fit: () => page.fit(),
    range: () => page.transform.rescaleX(page.base).domain(),
    page,
  };
})();
