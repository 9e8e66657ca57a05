// The lane of one kind of event in the timeline: a mark for each point, and a bar with a count where points crowd.

import { s } from "./dom.js";
import { compact, count, sinceLaunch } from "./format.js";
import { classOf, glyph, labelOf } from "./kinds.js";

// Sizes in pixels.
const LANE = 22; // height with one level of marks
const LEVEL = 9; // height of each further level
const BAR_LANE = 40; // least height of a lane with bars
const SLOT = 30; // width of the part of a lane whose points gather
const GAP = 3; // between two bars
const LEAST_BAR = 5;
const LABEL = 11; // height of a bar's count

const MOST_SINGLE = 5; // points in a slot; more of them become a bar
const MOST_NAMED = 4; // names in the description of a bar

/**
 * Places points of one kind between `frame.left` and `frame.right`. `frame.x` turns seconds into pixels. Returns
 * {height, singles: [{point, at, radius, level}], bars: [{left, right, count, points}]}.
 */
export function arrange(points, frame) {
  const { left, right, x, from, to } = frame;
  const slots = new Map();
  for (const point of points) {
    const span = point.span ?? 0;
    if (point.time + span < from || point.time > to) continue;
    const at = Math.min(Math.max(x(point.time + Math.max(0, span - 1) / 2), left), right);
    const slot = Math.floor((at - left) / SLOT);
    if (!slots.has(slot)) slots.set(slot, []);
    slots.get(slot).push({ point, at });
  }
  const bars = [];
  const singles = [];
  for (const [slot, inside] of slots) {
    if (inside.length <= MOST_SINGLE && !inside.some(({ point }) => point.span)) {
      singles.push(...inside);
      continue;
    }
    const members = inside.map(({ point }) => point);
    const begin = left + slot * SLOT;
    const sum = members.reduce((all, point) => all + point.count, 0);
    bars.push({ left: begin, right: Math.min(begin + SLOT - GAP, right), count: sum, points: members });
  }
  const levels = spread(singles.sort((a, b) => a.at - b.at));
  const height = LANE + LEVEL * Math.max(0, levels - 1);
  return { height: bars.length > 0 ? Math.max(height, BAR_LANE) : height, singles, bars };
}

/** Gives each mark, from left to right, the lowest level on which it does not overlap another. Returns the levels. */
function spread(singles) {
  const ends = []; // the right end of the last mark on each level
  for (const mark of singles) {
    mark.radius = Math.min(8, 3.6 + Math.log2(Math.max(1, mark.point.count)) / 2);
    const free = ends.findIndex((end) => mark.at - mark.radius >= end);
    mark.level = free >= 0 ? free : Math.min(ends.length, MOST_SINGLE - 1);
    ends[mark.level] = mark.at + mark.radius + 0.5;
  }
  return ends.length;
}

/** Returns the SVG shapes of a lane, and its targets for pointer and keys. */
export function drawLane({ kind, top, height, singles, bars }, opacity) {
  const marks = [];
  const shapes = singles.map(({ point, at, radius, level }) => {
    const y = top + height - LANE / 2 - level * LEVEL;
    marks.push({ left: at, right: at, y, pick: [kind, point.name], text: describePoint(point) });
    return glyph(kind, at, y, radius, {
      "data-kind": kind, "data-name": point.name, "data-time": point.time, "data-count": point.count, opacity,
    });
  });
  const highest = bars.reduce((most, bar) => Math.max(most, bar.count), 1);
  for (const bar of bars) {
    const room = height - LABEL - 8;
    const tall = LEAST_BAR + (room - LEAST_BAR) * (Math.log1p(bar.count) / Math.log1p(highest));
    const bottom = top + height - 4;
    const place = { x: bar.left.toFixed(1), y: (bottom - tall).toFixed(1), rx: 2,
      width: Math.max(2, bar.right - bar.left).toFixed(1), height: tall.toFixed(1) };
    shapes.push(s("g", { class: "gathered", "data-kind": kind, "data-count": bar.count, opacity },
      s("rect", { class: classOf(kind), ...place }),
      s("text", { x: ((bar.left + bar.right) / 2).toFixed(1), y: (bottom - tall - 3).toFixed(1), "text-anchor": "middle" },
        compact(bar.count))));
    marks.push({ left: bar.left, right: bar.right, y: bottom - tall / 2, band: tall / 2, ...targetOf(kind, bar) });
  }
  return { shapes, marks };
}

function describePoint(point) {
  const times = point.count > 1 ? ` × ${count(point.count)}` : "";
  return `${sinceLaunch(point.time)} ${labelOf(point.kind)}: ${point.name || "(no name)"}${times}`;
}

/** Returns what a bar says and does: it zooms to its period, or filters by its kind if the period is one second. */
function targetOf(kind, bar) {
  const begin = bar.points.reduce((least, { time }) => Math.min(least, time), Infinity);
  const end = bar.points.reduce((most, { time, span }) => Math.max(most, time + (span ?? 1)), begin + 1);
  const names = new Map();
  for (const { name, count: times } of bar.points) if (name) names.set(name, (names.get(name) ?? 0) + times);
  const most = [...names].sort((a, b) => b[1] - a[1]);
  const named = most.slice(0, MOST_NAMED).map(([name, times]) => (times > 1 ? `${name} × ${count(times)}` : name));
  if (most.length > MOST_NAMED) named.push(`${count(most.length - MOST_NAMED)} more names`);
  const what = named.length > 0 ? ` (${named.join(", ")})` : "";
  const text = `${sinceLaunch(begin)} to ${sinceLaunch(end)} ${labelOf(kind)}: ${count(bar.count)} events${what}`;
  return end - begin > 1 ? { text, zoom: [begin, end] } : { text, pick: [kind, null] };
}
