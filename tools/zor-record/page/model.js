'use strict';

// The recording as the page's data has it, and what can be asked of it. Times are nanoseconds since
// the recording began.

const SEND = 0;
const HANDLING = 1;

/** A duration with the unit that suits it. */
function durationText(nsec) {
  const size = Math.abs(nsec);
  if (size >= 1e9) return (nsec / 1e9).toFixed(size >= 1e11 ? 1 : 3) + ' s';
  if (size >= 1e6) return (nsec / 1e6).toFixed(3) + ' ms';
  if (size >= 1e3) return (nsec / 1e3).toFixed(2) + ' µs';
  return Math.round(nsec) + ' ns';
}

/** A moment of the recording, as exact as zor-record prints it. */
function momentText(nsec) {
  const sign = nsec < 0 ? '-' : '';
  const size = Math.abs(Math.round(nsec));
  const seconds = Math.floor(size / 1e9);
  return sign + seconds + '.' + String(size - seconds * 1e9).padStart(9, '0') + ' s';
}

class Model {
  constructor(data) {
    this.data = data;
    this.calls = data.calls;
    this.count = data.calls.lane.length;
    this.from = data.from_ns;
    this.to = Math.max(data.to_ns, data.from_ns + 1000);
    this.lanes = data.lanes.map((lane) => ({ ...lane, depth: 0, rows: [] }));
    this.flowOf = new Int32Array(this.count).fill(-1); // of a send its handling, and the reverse
    this.inCircle = new Uint8Array(this.count);
    this.onPath = data.path === null ? -1 : data.path.call;
    this.unfinished = [];
    this.addRows();
    for (let i = 0; i < data.flows.length; i += 2) {
      this.flowOf[data.flows[i]] = data.flows[i + 1];
      this.flowOf[data.flows[i + 1]] = data.flows[i];
    }
    for (const circle of data.circles) {
      for (const call of circle) this.inCircle[call] = 1;
    }
    this.addTexts();
  }

  end(call) {
    return this.calls.begin[call] + this.calls.duration[call];
  }

  /** Calls of a lane by how deep they are in others: those of a row follow each other. */
  addRows() {
    const { lane, depth, finished } = this.calls;
    for (let call = 0; call < this.count; ++call) {
      const rows = this.lanes[lane[call]].rows;
      while (rows.length <= depth[call]) rows.push([]);
      rows[depth[call]].push(call);
      if (!finished[call]) this.unfinished.push(call);
    }
  }

  /** What a search looks at: of each task and receiver the name, of each type number and name. */
  addTexts() {
    this.laneTexts = this.lanes.map((lane) => lane.name.toLowerCase());
    this.typeNames = this.data.types.map((type) => type.name.toLowerCase());
  }

  /** `101 EV_ASK`, or what there is of it. */
  typeText(call) {
    const type = this.calls.type[call];
    if (type < 0) return 'no event';
    const { type: number, name } = this.data.types[type];
    return name === '' ? number : number + ' ' + name;
  }

  /** What fits on a bar. */
  label(call) {
    const type = this.calls.type[call];
    if (this.calls.kind[call] > HANDLING) {
      const site = this.calls.site[call];
      return site < 0 ? 'call' : this.data.sites[site].function;
    }
    if (type < 0) return 'no event';
    return this.data.types[type].name || this.data.types[type].type;
  }

  /** The same where there is less room. */
  shortLabel(call) {
    const type = this.calls.type[call];
    return type < 0 ? '' : this.data.types[type].type;
  }

  /** What a call is, in words. */
  verb(call) {
    switch (this.calls.kind[call]) {
      case SEND: return this.calls.sync[call] ? 'sends and waits' : 'sends';
      case HANDLING: return 'handles';
      default: return 'calls';
    }
  }

  /** How long an event was on its way to its handling; null if that is not known. */
  waiting(call) {
    const other = this.flowOf[call];
    if (other < 0) return null;
    const [send, handling] = this.calls.kind[call] === SEND ? [call, other] : [other, call];
    return Math.max(0, this.calls.begin[handling] - this.calls.begin[send]);
  }

  /**
   * The calls that all words of a text fit, in the order of their times. A word is a part of the name of
   * the task, of the receiver or of the type, or the type's number.
   */
  search(text) {
    const words = text.toLowerCase().split(/\s+/).filter((word) => word !== '');
    if (words.length === 0) return [];
    const { lane, type, receiver, begin } = this.calls;
    const inLane = words.map((word) => this.laneTexts.map((name) => name.includes(word)));
    const inType = words.map((word) => this.data.types.map(
      (each, i) => each.type === word || this.typeNames[i].includes(word)));
    const receivers = new Map();
    const inReceiver = (name, i) => {
      if (!receivers.has(name)) {
        receivers.set(name, words.map((word) => name.toLowerCase().includes(word)));
      }
      return receivers.get(name)[i];
    };
    const hits = [];
    for (let call = 0; call < this.count; ++call) {
      const fits = words.every((word, i) => inLane[i][lane[call]] ||
        (type[call] >= 0 && inType[i][type[call]]) || inReceiver(receiver[call], i));
      if (fits) hits.push(call);
    }
    return hits.sort((left, right) => begin[left] - begin[right]);
  }

  /** What is known of a call: pairs of a word and a text. */
  facts(call) {
    const { begin, duration, finished, cpu, result, receiver, site, params, priority } = this.calls;
    const facts = [['from', momentText(begin[call])],
      [finished[call] ? 'took' : 'so far', durationText(duration[call])]];
    if (cpu[call] >= 0) facts.push(['processor', durationText(cpu[call])]);
    if (receiver[call] !== '') facts.push(['receiver', receiver[call]]);
    const waiting = this.waiting(call);
    if (waiting !== null) facts.push(['on the way', durationText(waiting)]);
    const other = this.flowOf[call];
    if (other >= 0) {
      const lane = this.lanes[this.calls.lane[other]];
      facts.push([this.calls.kind[call] === SEND ? 'handled by' : 'sent by',
        `${lane.name} (${lane.thread}) at ${momentText(begin[other])}`]);
    } else if (this.calls.kind[call] === SEND && result[call] !== 0) {
      facts.push(['handled', 'not in this recording']);
    }
    if (result[call] >= 0) facts.push(['result', result[call] ? 'true' : 'false']);
    if (priority[call]) facts.push(['priority', 'yes']);
    if (params[call] !== '') facts.push(['values', params[call]]);
    if (site[call] >= 0) {
      facts.push(['at', `${this.data.sites[site[call]].function} [${this.data.sites[site[call]].at}]`]);
    }
    return facts;
  }

  /** What is wrong with a call; empty if nothing is. */
  trouble(call) {
    if (this.inCircle[call]) return 'in a circle: waits for a thread that waits for this one';
    return this.calls.finished[call] ? '' : 'has not finished';
  }
}
