// Plots one session over the seconds since its launch: chunk boundaries, foreground, screens, and a lane of marks for
// each kind of event (lanes.js). Sizes are SVG attributes, because the content security policy forbids inline styles.

import { s } from "./dom.js";
import { duration, sinceLaunch } from "./format.js";
import { labelOf, sortedKinds } from "./kinds.js";
import { arrange, drawLane } from "./lanes.js";

// Heights in pixels.
const AXIS = 22;
const CHUNKS = 18;
const ACTIVE = 14;
const SCREENS = 26;
const GAP = 5;

const TINTS = 6;
const LETTER = 6.4; // approximate width of a letter in pixels
// Distances between two ticks of the axis, in seconds.
const STEPS = [0.1, 0.2, 0.5, 1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 14400, 43200, 86400];
const BOUNDARY_ROOM = 24; // pixels per chunk boundary; with less, the boundaries stay in their lane
const REACH = 14; // greatest distance in pixels between the pointer and the mark that it selects

export class Timeline {
  #data = null;
  #marked = []; // the points in the plot: those of the data, or of the zoomed period if the data gathers them
  #kind = "";
  #range = null; // [from, to] in seconds if zoomed
  #marks = []; // the targets of pointer and arrow keys: {left, right, y, text, pick or zoom}
  #cursor = -1;

  /**
   * Calls `onPick(kind, name)` when the user chooses a mark; the name is null for a bar of events with several names.
   * `load(from, to)` returns a promise of the points in a period.
   */
  constructor(host, readout, onPick, load) {
    this.host = host;
    this.readout = readout;
    this.onPick = onPick;
    this.load = load;
    new ResizeObserver(() => this.#draw()).observe(host);
    host.addEventListener("keydown", (event) => this.#key(event));
    host.addEventListener("pointermove", (event) => this.#hover(event));
    host.addEventListener("pointerleave", () => this.#show(-1));
    host.addEventListener("pointerdown", (event) => this.#drag(event));
  }

  /** Plots `data`. Keeps the zoom unless the session changed. */
  show(data, sessionChanged) {
    this.#data = data;
    if (sessionChanged) this.#range = null;
    if (!this.#range || !data.gathered) this.#marked = data.points;
    this.#draw();
    this.#loadRange();
  }

  /** Gets the points of the zoomed period if the data gathers too many of them. */
  async #loadRange() {
    const [range, data] = [this.#range, this.#data];
    if (!range || !data.gathered) return;
    const points = await this.load(Math.floor(range[0]), Math.ceil(range[1]) + 1);
    if (!points || range !== this.#range || data !== this.#data) return;
    this.#marked = points;
    this.#draw();
  }

  emphasise(kind) {
    this.#kind = kind;
    this.#draw();
  }

  /** Zooms by `factor` around the middle; 0 shows the whole session. */
  zoom(factor) {
    const [from, to] = this.#span();
    const half = ((to - from) * factor) / 2;
    const middle = (from + to) / 2;
    this.#zoomTo(factor === 0 ? null : [middle - half, middle + half]);
  }

  #whole() {
    const { length, points, screens, chunks } = this.#data;
    const times = [0, 1, length ?? 0, ...points.map((p) => p.time + (p.span ?? 0)), ...chunks.map((c) => c.time ?? 0),
      ...screens.flatMap((b) => [b.start, b.start + b.duration])];
    return [times.reduce((a, b) => Math.min(a, b)), times.reduce((a, b) => Math.max(a, b))];
  }

  #span() {
    return this.#range ?? this.#whole();
  }

  #zoomTo(range) {
    const [first, last] = this.#whole();
    const [from, to] = range ? [Math.max(first, range[0]), Math.min(last, range[1])] : [first, last];
    if (to - from < 0.2) return;
    this.#range = from === first && to === last ? null : [from, to];
    this.#marked = this.#data.points;
    this.#draw();
    this.#loadRange();
  }

  #draw() {
    const width = this.host.clientWidth;
    if (!this.#data || width === 0) return;
    const kinds = sortedKinds(new Set(this.#data.points.map((point) => point.kind)));
    const left = width < 560 ? 4 : 88;
    const right = width - 10;
    const [from, to] = this.#span();
    const x = (time) => left + ((time - from) / (to - from)) * (right - left);
    this.frame = { left, right, x, from, to, labels: left > 10 };
    const lanes = this.#lanes(kinds);
    const height = lanes.reduce((sum, lane) => sum + lane.height, this.#top("points")) + 4;
    this.frame.height = height;
    this.#marks = [];
    this.#cursor = -1;

    const parts = [...this.#axis(), ...this.#chunks(), ...this.#active(), ...this.#screens(), ...this.#points(lanes)];
    this.crosshair = s("path", { class: "crosshair", d: "M0 0", visibility: "hidden" });
    this.selection = s("rect", { class: "selection", y: AXIS, height: height - AXIS, visibility: "hidden" });
    const frame = { width, height, viewBox: `0 0 ${width} ${height}` };
    this.svg = s("svg", { ...frame, role: "img", "aria-label": this.#summary() },
      this.#laneNames(lanes), parts, this.crosshair, this.selection);
    this.host.replaceChildren(this.svg);
    this.#marks.sort((a, b) => a.left - b.left);
    this.#show(-1);
  }

  #summary() {
    const { screens, points, chunks } = this.#data;
    const events = points.reduce((sum, point) => sum + point.count, 0);
    return `${screens.length} screens, ${events} events, ${chunks.length} chunks in ${duration(this.#whole()[1])}`;
  }

  #visible(timed) {
    const { from, to } = this.frame;
    return timed.filter(({ time }) => time >= from && time <= to);
  }

  /** Returns the visible part of a period as [left, right] in pixels, null if none of it is visible. */
  #extent(start, end) {
    const { left, right, x } = this.frame;
    if (x(end) < left || x(start) > right) return null;
    const from = Math.max(x(start), left);
    return [from, Math.max(from + 2, Math.min(x(end), right))];
  }

  #top(lane) {
    const tops = { chunks: AXIS, active: AXIS + CHUNKS + GAP };
    tops.screens = tops.active + ACTIVE + GAP;
    tops.points = tops.screens + SCREENS + GAP;
    return tops[lane];
  }

  #lanes(kinds) {
    let top = this.#top("points");
    return kinds.map((kind) => {
      const lane = arrange(this.#marked.filter((point) => point.kind === kind), this.frame);
      Object.assign(lane, { kind, top });
      top += lane.height;
      return lane;
    });
  }

  #laneNames(lanes) {
    if (!this.frame.labels) return [];
    const name = (text, y) => s("text", { class: "lane-name", x: this.frame.left - 12, y, "text-anchor": "end" }, text);
    return [
      name("Chunks", this.#top("chunks") + 12),
      name("Foreground", this.#top("active") + 11),
      name("Screens", this.#top("screens") + 17),
      ...lanes.map((lane) => name(labelOf(lane.kind), lane.top + lane.height - 7)),
    ];
  }

  #axis() {
    const { left, right, height, x, from, to } = this.frame;
    const room = Math.max(1, Math.floor((right - left) / 74));
    const least = (to - from) / room;
    const step = STEPS.find((candidate) => candidate >= least) ?? Math.ceil(least / 86400) * 86400;
    const parts = [];
    for (let i = Math.ceil(from / step - 1e-9); i * step <= to + 1e-9; i += 1) {
      const at = x(i * step).toFixed(1);
      const anchor = at - left < 20 ? "start" : right - at < 20 ? "end" : "middle";
      parts.push(s("path", { class: "tick", d: `M${at} ${AXIS - 4}V${height}` }));
      parts.push(s("text", { class: "tick-name", x: at, y: 12, "text-anchor": anchor }, sinceLaunch(i * step)));
    }
    return parts;
  }

  #active() {
    const { left, right } = this.frame;
    const y = this.#top("active");
    const bar = ([start, end], attributes) =>
      s("rect", { x: start.toFixed(1), y, width: (end - start).toFixed(1), height: ACTIVE, rx: 3, ...attributes });
    const parts = [bar([left, right], { class: "background" })];
    for (const period of this.#data.active) {
      const end = period.end ?? this.#whole()[1];
      const extent = this.#extent(period.start, end);
      if (!extent) continue;
      parts.push(bar(extent, { class: "foreground", "data-start": period.start, "data-end": end }));
      const still = period.end === null ? ", and still" : "";
      this.#marks.push({
        left: extent[0], right: extent[1], y: y + ACTIVE / 2, band: ACTIVE / 2,
        text: `In the foreground from ${sinceLaunch(period.start)} to ${sinceLaunch(end)}${still}`,
      });
    }
    return parts;
  }

  #screens() {
    const y = this.#top("screens");
    const tints = new Map();
    return this.#data.screens.map((screen) => {
      if (!tints.has(screen.name)) tints.set(screen.name, tints.size % TINTS);
      const extent = this.#extent(screen.start, screen.start + screen.duration);
      if (!extent) return null;
      const [start, end] = extent;
      const letters = Math.floor((end - start - 12) / LETTER);
      const cut = letters > 2 ? `${screen.name.slice(0, letters - 1)}…` : "";
      const name = screen.name.length <= letters ? screen.name : cut;
      this.#marks.push({
        left: start, right: end, y: y + SCREENS / 2, band: SCREENS / 2, pick: ["navigation", screen.name],
        text: `Screen ${screen.name}, ${duration(screen.duration)} from ${sinceLaunch(screen.start)}`,
      });
      return s("g", { class: `screen tint-${tints.get(screen.name)}` },
        s("rect", { x: start.toFixed(1), y, width: (end - start).toFixed(1), height: SCREENS, rx: 3,
          "data-name": screen.name, "data-start": screen.start, "data-duration": screen.duration }),
        name && s("text", { x: (start + 6).toFixed(1), y: y + 17 }, name));
    });
  }

  #points(lanes) {
    return lanes.flatMap((lane) => {
      const { shapes, marks } = drawLane(lane, this.#kind && this.#kind !== lane.kind ? 0.2 : null);
      this.#marks.push(...marks);
      return shapes;
    });
  }

  #chunks() {
    const { left, right, x, height } = this.frame;
    const top = this.#top("chunks");
    const chunks = this.#visible(this.#data.chunks).sort((a, b) => a.time - b.time);
    const dense = chunks.length > (right - left) / BOUNDARY_ROOM;
    const [begin, end] = dense ? [top + CHUNKS - 4, top + CHUNKS + 2] : [top, height];
    let free = left;
    return chunks.map((chunk) => {
      const at = x(chunk.time);
      const label = `#${chunk.number}`;
      const named = at - label.length * LETTER - (dense ? 24 : 8) > free;
      if (named) free = at;
      this.#marks.push({
        left: at, right: at, y: top + CHUNKS / 2,
        text: `Chunk ${chunk.number} ends at ${sinceLaunch(chunk.time)}`,
      });
      return s("g", { class: "chunk", "data-number": chunk.number, "data-time": chunk.time },
        s("path", { d: `M${at.toFixed(1)} ${begin}V${end}` }),
        named && s("text", { x: (at - 5).toFixed(1), y: top + 12, "text-anchor": "end" }, label));
    });
  }

  #show(index) {
    this.#cursor = index;
    const mark = this.#marks[index];
    this.crosshair?.setAttribute("visibility", mark ? "visible" : "hidden");
    if (mark) {
      this.crosshair.setAttribute("d", `M${mark.left.toFixed(1)} ${AXIS - 4}V${this.frame.height}`);
    }
    const resting = this.#data?.sampled
      ? "Too many screens for a plot: this is a sample of them."
      : "Drag across the plot to zoom; arrow keys step through it.";
    this.readout.textContent = mark?.text ?? resting;
  }

  #nearest(event) {
    const box = this.svg.getBoundingClientRect();
    const [px, py] = [event.clientX - box.left, event.clientY - box.top];
    let best = -1;
    let least = REACH;
    this.#marks.forEach((mark, i) => {
      const dx = Math.max(mark.left - px, 0, px - mark.right);
      const dy = Math.max(0, Math.abs(mark.y - py) - (mark.band ?? 0));
      const distance = Math.hypot(dx, dy);
      if (distance < least) [best, least] = [i, distance];
    });
    return best;
  }

  #hover(event) {
    if (this.svg && event.buttons === 0) this.#show(this.#nearest(event));
  }

  #pick(index) {
    const mark = this.#marks[index];
    if (mark?.zoom) this.#zoomTo(mark.zoom);
    else if (mark?.pick) this.onPick(...mark.pick);
  }

  /** Zooms to the dragged period; a click picks the mark below the pointer. */
  #drag(down) {
    if (!this.svg || down.button !== 0) return;
    const { left, right, from, to } = this.frame;
    const box = this.svg.getBoundingClientRect();
    const within = (event) => Math.min(Math.max(event.clientX - box.left, left), right);
    const start = within(down);
    let end = start;
    const move = (event) => {
      end = within(event);
      this.selection.setAttribute("visibility", Math.abs(end - start) > 5 ? "visible" : "hidden");
      this.selection.setAttribute("x", Math.min(start, end));
      this.selection.setAttribute("width", Math.abs(end - start));
    };
    const over = new AbortController();
    const up = () => {
      over.abort();
      const time = (at) => from + ((at - left) / (right - left)) * (to - from);
      if (Math.abs(end - start) > 5) this.#zoomTo([time(Math.min(start, end)), time(Math.max(start, end))]);
      else this.#pick(this.#nearest(down));
    };
    window.addEventListener("pointermove", move, { signal: over.signal });
    window.addEventListener("pointerup", up, { signal: over.signal });
    window.addEventListener("pointercancel", () => over.abort(), { signal: over.signal });
  }

  #key(event) {
    const last = this.#marks.length - 1;
    const to = {
      ArrowRight: Math.min(this.#cursor + 1, last), ArrowLeft: Math.max(this.#cursor - 1, 0), Home: 0, End: last,
    }[event.key];
    const zoom = { "+": 0.5, "-": 2, 0: 0 }[event.key];
    if (to !== undefined) this.#show(to);
    else if (zoom !== undefined) this.zoom(zoom);
    else if (event.key === "Enter") this.#pick(this.#cursor);
    else return;
    event.preventDefault();
  }
}
