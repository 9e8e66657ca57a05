// The marks of the kinds of events. Kinds differ in shape as well as in colour.

import { s } from "./dom.js";

const round = (r) => `M${-r} 0a${r} ${r} 0 1 0 ${2 * r} 0a${r} ${r} 0 1 0 ${-2 * r} 0z`;
const cross = (r) => {
  const a = r * 0.38;
  return `M${-a} ${-r}H${a}V${-a}H${r}V${a}H${a}V${r}H${-a}V${a}H${-r}V${-a}H${-a}z`;
};

const KINDS = {
  app: { label: "App", path: round },
  system: { label: "System", path: (r) => `M${-r} ${-r}h${2 * r}v${2 * r}h${-2 * r}z` },
  navigation: { label: "Navigation", path: (r) => `M${-r} ${-r * 1.1}L${r * 1.1} 0L${-r} ${r * 1.1}z` },
  user: { label: "User", path: (r) => `M0 ${-r * 1.25}L${r * 1.25} 0L0 ${r * 1.25}L${-r * 1.25} 0z` },
  observation: { label: "Observation", path: cross, turn: 45 },
  aggregate: { label: "Aggregate", path: (r) => `${round(r * 1.05)}${round(r * 0.5)}`, ring: true },
};
const OTHER = { path: (r) => `M0 ${-r * 1.2}L${r * 1.1} ${r}H${-r * 1.1}z` };
const ORDER = Object.keys(KINDS);

/** Returns the class name for the style sheet. An unknown, received kind never becomes a class name. */
export function classOf(kind) {
  return ORDER.includes(kind) ? `kind-${kind}` : "kind-other";
}

export function labelOf(kind) {
  return ORDER.includes(kind) ? KINDS[kind].label : kind;
}

export function sortedKinds(kinds) {
  const rank = (kind) => (ORDER.includes(kind) ? ORDER.indexOf(kind) : ORDER.length);
  return [...kinds].sort((a, b) => rank(a) - rank(b) || (a < b ? -1 : 1));
}

/** Returns the mark of `kind`, centred on a point. */
export function glyph(kind, x, y, radius, attributes) {
  const form = ORDER.includes(kind) ? KINDS[kind] : OTHER;
  const place = `translate(${x.toFixed(1)} ${y})${form.turn ? ` rotate(${form.turn})` : ""}`;
  return s("path", {
    class: `glyph ${classOf(kind)}`,
    d: form.path(radius),
    transform: place,
    "fill-rule": form.ring ? "evenodd" : null,
    ...attributes,
  });
}

/** Returns the mark of `kind` as a small icon for use in text. */
export function icon(kind) {
  const frame = { class: "icon", viewBox: "-7 -7 14 14", width: 12, height: 12 };
  return s("svg", { ...frame, "aria-hidden": "true" }, glyph(kind, 0, 0, 5));
}
