'use strict';

// Draws a part of the recording. What is narrower than a pixel is drawn once for all that share it, so
// that a drawing costs what there is to see and not what there is.

const LANE_NAMES = 190;
const AXIS = 34;
const ROW = 17;
const LANE_PAD = 6;
const PATH_BAND = 5;
const MOST_DEPTH = 6; // what is deeper shares a row
const MOST_ARROWS = 1500;
const FONT = '12px system-ui, "DejaVu Sans", "Liberation Sans", Arial, sans-serif';

const COLOURS = {
  ink: '#1d2530',
  soft: '#5a6675',
  line: '#d5dbe3',
  shade: '#f4f6f9',
  handling: '#2f6db5',
  wait: '#c9dcef',
  waitEdge: '#2f6db5',
  send: '#52606d',
  other: '#7b6a9c',
  red: '#b3131b',
  pale: '#f7d6d6',
  path: '#e08600',
  hit: '#ffe23d',
};

/** Stripes, for what must not be told by its colour alone. */
function stripes(context, paper, line, gap) {
  const tile = document.createElement('canvas');
  tile.width = tile.height = gap;
  const pen = tile.getContext('2d');
  pen.fillStyle = paper;
  pen.fillRect(0, 0, gap, gap);
  pen.strokeStyle = line;
  pen.lineWidth = 1.4;
  pen.beginPath();
  for (const from of [-gap, 0, gap]) {
    pen.moveTo(from, gap);
    pen.lineTo(from + gap, 0);
  }
  pen.stroke();
  return context.createPattern(tile, 'repeat');
}

class Drawing {
  constructor(model, canvas) {
    this.model = model;
    this.canvas = canvas;
    this.context = canvas.getContext('2d');
    this.hits = new Uint8Array(model.count);
    this.hitList = [];
    this.selected = -1;
    this.hovered = -1;
    this.widths = new Map();
    this.layOut();
    this.resize(800, 400, 1);
  }

  /** The lanes' places, from the top of all. */
  layOut() {
    let top = 0;
    for (const lane of this.model.lanes) {
      lane.top = top;
      lane.rowCount = Math.max(1, Math.min(MOST_DEPTH, lane.rows.length));
      lane.height = lane.rowCount * ROW + 2 * LANE_PAD + PATH_BAND;
      top += lane.height;
    }
    this.height = top;
    this.laneByName = new Map(this.model.lanes.map((lane) => [lane.name, lane]));
  }

  resize(width, height, scale) {
    this.width = width;
    this.viewHeight = height;
    this.scale = scale;
    this.canvas.width = Math.round(width * scale);
    this.canvas.height = Math.round(height * scale);
    this.canvas.style.width = width + 'px';
    this.canvas.style.height = height + 'px';
    this.striped = {
      wait: stripes(this.context, '#ffffff', '#8fb3d9', 7),
      red: stripes(this.context, COLOURS.pale, COLOURS.red, 6),
    };
  }

  rowTop(lane, depth) {
    return AXIS + lane.top - this.scroll + LANE_PAD + Math.min(depth, lane.rowCount - 1) * ROW;
  }

  isSeen(lane) {
    const top = AXIS + lane.top - this.scroll;
    return top + lane.height > AXIS && top < this.viewHeight;
  }

  /** The first of a row's calls that ends at a time or later. */
  firstFrom(row, time) {
    let low = 0;
    let high = row.length;
    while (low < high) {
      const middle = (low + high) >> 1;
      if (this.model.end(row[middle]) < time) low = middle + 1;
      else high = middle;
    }
    return low;
  }

  /**
   * Draws everything.
   *
   * x: a scale from times to pixels; scroll: how far the lanes are scrolled up
   */
  draw(x, scroll) {
    this.x = x;
    this.scroll = scroll;
    this.stats = { bars: 0, merged: 0, arrows: 0, arrowsLeftOut: 0, labels: 0, hits: 0, path: 0, circles: 0 };
    const pen = this.context;
    pen.setTransform(this.scale, 0, 0, this.scale, 0, 0);
    pen.clearRect(0, 0, this.width, this.viewHeight);
    pen.font = FONT;
    pen.textBaseline = 'middle';
    this.drawLanes();
    pen.save();
    pen.beginPath();
    pen.rect(LANE_NAMES, AXIS, this.width - LANE_NAMES, this.viewHeight - AXIS);
    pen.clip();
    this.drawPath();
    for (const lane of this.model.lanes) {
      if (!this.isSeen(lane)) continue;
      lane.rows.forEach((row, depth) => this.drawRow(lane, row, depth));
    }
    this.drawArrows();
    this.drawCircles();
    pen.restore();
    this.drawNames();
    this.drawAxis();
    return this.stats;
  }

  drawLanes() {
    const pen = this.context;
    this.model.lanes.forEach((lane, i) => {
      if (!this.isSeen(lane)) return;
      const top = AXIS + lane.top - this.scroll;
      if (i % 2 === 0) {
        pen.fillStyle = COLOURS.shade;
        pen.fillRect(0, top, this.width, lane.height);
      }
      pen.fillStyle = COLOURS.line;
      pen.fillRect(0, top + lane.height - 1, this.width, 1);
    });
  }

  drawNames() {
    const pen = this.context;
    for (const lane of this.model.lanes) {
      if (!this.isSeen(lane)) continue;
      const middle = AXIS + lane.top - this.scroll + lane.height / 2;
      pen.textAlign = 'left';
      pen.font = 'bold ' + FONT;
      pen.fillStyle = COLOURS.ink;
      const number = String(lane.thread);
      pen.font = FONT;
      const room = LANE_NAMES - 24 - pen.measureText(number).width;
      pen.font = 'bold ' + FONT;
      pen.fillText(this.cut(lane.name, room), 8, middle);
      pen.font = FONT;
      pen.fillStyle = COLOURS.soft;
      pen.textAlign = 'right';
      pen.fillText(number, LANE_NAMES - 8, middle);
    }
    pen.textAlign = 'left';
    pen.fillStyle = COLOURS.line;
    pen.fillRect(LANE_NAMES - 1, 0, 1, this.viewHeight);
  }

  drawAxis() {
    const pen = this.context;
    pen.fillStyle = '#ffffff';
    pen.fillRect(0, 0, this.width, AXIS);
    pen.fillStyle = COLOURS.soft;
    pen.textAlign = 'left';
    pen.fillText('task, thread', 8, AXIS / 2);
    const [from, to] = this.x.domain();
    const ticks = this.x.ticks(Math.max(2, Math.floor((this.width - LANE_NAMES) / 130)));
    const step = ticks.length > 1 ? ticks[1] - ticks[0] : to - from;
    const places = Math.max(0, Math.min(9, 9 - Math.floor(Math.log10(Math.max(1, step)) + 1e-9)));
    for (const tick of ticks) {
      const at = Math.round(this.x(tick));
      if (at < LANE_NAMES) continue;
      pen.fillStyle = '#8591a0';
      pen.fillRect(at, AXIS - 6, 1, 6);
      pen.fillStyle = 'rgba(90, 102, 117, 0.13)';
      pen.fillRect(at, AXIS, 1, this.viewHeight - AXIS);
      const text = (tick / 1e9).toFixed(places) + ' s';
      const width = pen.measureText(text).width;
      if (at + width / 2 > this.width || at - width / 2 < LANE_NAMES) continue;
      pen.fillStyle = COLOURS.ink;
      pen.textAlign = 'center';
      pen.fillText(text, at, AXIS / 2 - 2);
    }
    pen.textAlign = 'left';
    pen.fillStyle = COLOURS.soft;
    pen.fillRect(0, AXIS - 1, this.width, 1);
    // Where the hits are, for those that scrolling hides as well.
    let last = -1;
    for (const call of this.hitList) {
      const at = Math.round(this.x(this.model.calls.begin[call]));
      if (at === last || at < LANE_NAMES || at > this.width) continue;
      last = at;
      pen.fillStyle = COLOURS.ink;
      pen.fillRect(at - 1, AXIS - 9, 3, 9);
      pen.fillStyle = COLOURS.hit;
      pen.fillRect(at, AXIS - 8, 1, 7);
    }
  }

  drawRow(lane, row, depth) {
    const { begin, duration, finished } = this.model.calls;
    const [from, to] = this.x.domain();
    const top = this.rowTop(lane, depth);
    let lastPixel = -1;
    for (let i = this.firstFrom(row, from); i < row.length; ++i) {
      const call = row[i];
      if (begin[call] > to) break;
      const left = Math.max(LANE_NAMES - 4, this.x(begin[call]));
      const right = Math.min(this.width + 4, this.x(begin[call] + duration[call]));
      const pixel = Math.floor(right);
      const special = this.hits[call] || !finished[call] || call === this.selected;
      if (pixel === lastPixel && !special) {
        ++this.stats.merged;
        continue;
      }
      lastPixel = pixel;
      this.drawBar(call, left, Math.max(1, right - left), top);
    }
  }

  drawBar(call, left, width, top) {
    const pen = this.context;
    const { kind, sync, finished } = this.model.calls;
    const height = ROW - 3;
    ++this.stats.bars;
    if (this.hits[call]) {
      ++this.stats.hits;
      pen.fillStyle = COLOURS.ink;
      pen.fillRect(left - 3, top - 3, width + 6, height + 6);
      pen.fillStyle = COLOURS.hit;
      pen.fillRect(left - 2, top - 2, width + 4, height + 4);
    }
    const isWait = kind[call] === SEND && sync[call];
    if (!finished[call]) pen.fillStyle = width > 3 ? this.striped.red : COLOURS.red;
    else if (isWait) pen.fillStyle = width > 3 ? this.striped.wait : COLOURS.waitEdge;
    else if (kind[call] === HANDLING) pen.fillStyle = COLOURS.handling;
    else pen.fillStyle = kind[call] === SEND ? COLOURS.send : COLOURS.other;
    pen.fillRect(left, top, width > 3 ? width - 1 : width, height); // neighbours stay apart
    if (width > 3 && (isWait || !finished[call])) {
      pen.strokeStyle = finished[call] ? COLOURS.waitEdge : COLOURS.red;
      pen.lineWidth = 1;
      pen.strokeRect(left + 0.5, top + 0.5, width - 2, height - 1);
    }
    if (call === this.selected || call === this.hovered) {
      pen.strokeStyle = COLOURS.ink;
      pen.lineWidth = 2;
      pen.strokeRect(left, top, width, height);
    }
    if (width > 24) this.drawLabel(call, left, width, top, height, isWait || !finished[call]);
  }

  drawLabel(call, left, width, top, height, onStripes) {
    const pen = this.context;
    const trouble = this.model.inCircle[call] ? ' – in a circle' :
      this.model.calls.finished[call] ? '' : ' – unfinished';
    const start = Math.max(left, LANE_NAMES);
    const room = Math.min(left + width, this.width) - start - 8;
    let text = this.cut(this.model.label(call) + trouble, room);
    if (text.length < 8 && text.endsWith('…')) text = this.cut(this.model.shortLabel(call), room);
    if (text === '' || (text.length < 8 && text.endsWith('…'))) return;
    ++this.stats.labels;
    if (onStripes) { // a plate, so that the text can be read
      pen.fillStyle = '#ffffff';
      pen.fillRect(start + 2, top + 1, this.measure(text) + 4, height - 2);
    }
    pen.fillStyle = onStripes ? (trouble === '' ? '#123f73' : COLOURS.red) : '#ffffff';
    pen.fillText(text, start + 4, top + height / 2 + 0.5);
  }

  measure(text) {
    let width = this.widths.get(text);
    if (width === undefined) {
      width = this.context.measureText(text).width;
      if (this.widths.size > 20000) this.widths.clear();
      this.widths.set(text, width);
    }
    return width;
  }

  /** The text, or what fits of it, with a mark that it was cut. */
  cut(text, room) {
    if (room < 8) return '';
    if (this.measure(text) <= room) return text;
    let low = 0;
    let high = Math.min(text.length, 200);
    while (low < high) {
      const middle = (low + high + 1) >> 1;
      if (this.measure(text.slice(0, middle) + '…') <= room) low = middle;
      else high = middle - 1;
    }
    return low === 0 ? '' : text.slice(0, low) + '…';
  }

  /** The critical path: a band under what its time went into, joined where it changes the lane. */
  drawPath() {
    const path = this.model.data.path;
    if (path === null) return;
    const pen = this.context;
    let last = null;
    for (const stretch of path.path) {
      const lane = this.laneByName.get(stretch.thread);
      if (lane === undefined) continue;
      const left = this.x(stretch.from_ns);
      const right = this.x(stretch.from_ns + stretch.duration_ns);
      const top = AXIS + lane.top - this.scroll + lane.height - PATH_BAND - 2;
      if (right >= LANE_NAMES && left <= this.width) {
        const from = Math.max(left, LANE_NAMES - 4);
        const width = Math.max(2, Math.min(right, this.width + 4) - from);
        pen.fillStyle = COLOURS.path;
        pen.fillRect(from, top, width, PATH_BAND);
        pen.fillStyle = COLOURS.ink;
        pen.fillRect(from, top + PATH_BAND - 1, width, 1);
        ++this.stats.path;
        if (last !== null && last.lane !== lane) {
          pen.strokeStyle = COLOURS.path;
          pen.lineWidth = 3;
          pen.beginPath();
          pen.moveTo(left, last.top + PATH_BAND / 2);
          pen.lineTo(left, top + PATH_BAND / 2);
          pen.stroke();
        }
      }
      last = { lane, top };
    }
  }

  drawArrows() {
    const { flows } = this.model.data;
    const { begin, lane } = this.model.calls;
    const [from, to] = this.x.domain();
    const seen = [];
    let count = 0;
    for (let i = 0; i < flows.length; i += 2) {
      const send = flows[i];
      const handling = flows[i + 1];
      if (begin[handling] < from || begin[send] > to || lane[send] === lane[handling]) continue;
      ++count;
      if (count <= MOST_ARROWS) seen.push(i);
    }
    const tooMany = count > MOST_ARROWS;
    this.stats.arrowsLeftOut = tooMany ? count : 0;
    for (let i = 0; i < (tooMany ? 0 : seen.length); ++i) this.drawArrow(flows[seen[i]], flows[seen[i] + 1]);
    // Those of what is looked at are there in any case.
    for (const call of [this.hovered, this.selected]) {
      const other = call < 0 ? -1 : this.model.flowOf[call];
      if (other >= 0) {
        const isSend = this.model.calls.kind[call] === SEND;
        this.drawArrow(isSend ? call : other, isSend ? other : call, true);
      }
    }
  }

  drawArrow(send, handling, isBold = false) {
    const pen = this.context;
    const { begin, lane, depth } = this.model.calls;
    const fromLane = this.model.lanes[lane[send]];
    const toLane = this.model.lanes[lane[handling]];
    if (!this.isSeen(fromLane) && !this.isSeen(toLane)) return;
    ++this.stats.arrows;
    const x1 = this.x(begin[send]);
    const x2 = this.x(begin[handling]);
    const down = toLane.top > fromLane.top;
    const y1 = this.rowTop(fromLane, depth[send]) + (down ? ROW - 3 : 0);
    const y2 = this.rowTop(toLane, depth[handling]) + (down ? 0 : ROW - 3);
    pen.strokeStyle = pen.fillStyle = isBold ? COLOURS.ink : 'rgba(60, 72, 88, 0.62)';
    pen.lineWidth = isBold ? 2 : 1;
    pen.beginPath();
    pen.moveTo(x1, y1);
    pen.lineTo(x2, y2);
    pen.stroke();
    const angle = Math.atan2(y2 - y1, x2 - x1);
    const size = isBold ? 9 : 7;
    pen.beginPath();
    pen.moveTo(x2, y2);
    pen.lineTo(x2 - size * Math.cos(angle - 0.4), y2 - size * Math.sin(angle - 0.4));
    pen.lineTo(x2 - size * Math.cos(angle + 0.4), y2 - size * Math.sin(angle + 0.4));
    pen.closePath();
    pen.fill();
  }

  /** Who waits for whom in a circle, at the right end of what can be seen of it. */
  drawCircles() {
    const pen = this.context;
    const { begin, lane, depth } = this.model.calls;
    for (const circle of this.model.data.circles) {
      circle.forEach((call, i) => {
        const next = circle[(i + 1) % circle.length];
        const fromLane = this.model.lanes[lane[call]];
        const toLane = this.model.lanes[lane[next]];
        const left = Math.max(this.x(Math.max(begin[call], begin[next])), LANE_NAMES);
        const right = Math.min(this.x(this.model.end(call)), this.width);
        if (right <= left) return;
        const at = right - (right - left) * (0.12 + 0.12 * i / circle.length);
        const down = toLane.top > fromLane.top;
        const y1 = this.rowTop(fromLane, depth[call]) + (down ? ROW - 3 : 0);
        const y2 = this.rowTop(toLane, depth[next]) + (down ? 0 : ROW - 3);
        ++this.stats.circles;
        pen.strokeStyle = pen.fillStyle = COLOURS.red;
        pen.lineWidth = 2.5;
        pen.beginPath();
        pen.moveTo(at, y1);
        pen.lineTo(at, y2);
        pen.stroke();
        pen.beginPath();
        pen.moveTo(at, y2);
        pen.lineTo(at - 6, y2 + (down ? -10 : 10));
        pen.lineTo(at + 6, y2 + (down ? -10 : 10));
        pen.closePath();
        pen.fill();
      });
    }
  }

  /** The call at a place of the canvas; -1 if there is none. */
  callAt(px, py) {
    if (px < LANE_NAMES || py < AXIS) return -1;
    const y = py - AXIS + this.scroll;
    const lane = this.model.lanes.find((each) => y >= each.top && y < each.top + each.height);
    if (lane === undefined) return -1;
    const row = Math.floor((y - lane.top - LANE_PAD) / ROW);
    if (row < 0 || row >= lane.rowCount) return -1;
    const near = (this.x.domain()[1] - this.x.domain()[0]) / (this.width - LANE_NAMES) * 3;
    const time = this.x.invert(px);
    let best = -1;
    let bestGap = near;
    for (let depth = row; depth < (row === lane.rowCount - 1 ? lane.rows.length : row + 1); ++depth) {
      const calls = lane.rows[depth];
      if (calls === undefined) break;
      for (let i = this.firstFrom(calls, time - near); i < calls.length; ++i) {
        const begin = this.model.calls.begin[calls[i]];
        if (begin > time + near) break;
        const gap = Math.max(0, begin - time, time - this.model.end(calls[i]));
        if (gap <= bestGap) {
          best = calls[i];
          bestGap = gap;
          if (gap === 0) break;
        }
      }
    }
    return best;
  }
}
