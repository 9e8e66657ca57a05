// Numbers, times and JSON as text.

import { h } from "./dom.js";

const wholeNumber = new Intl.NumberFormat("en");
const seconds = [1, 3].map((digits) => new Intl.NumberFormat("en", { maximumFractionDigits: digits }));
const compactNumber = new Intl.NumberFormat("en", { notation: "compact", maximumSignificantDigits: 2 });
const pad = (number) => String(number).padStart(2, "0");

export function count(number) {
  return wholeNumber.format(number ?? 0);
}

export function plural(number, one, many = `${one}s`) {
  return `${count(number)} ${number === 1 ? one : many}`;
}

/** Formats a number in at most four letters: "999", "1.2k", "34k", "5M". */
export function compact(number) {
  return compactNumber.format(number).toLowerCase();
}

/** Formats a duration in seconds: "12.5 s", "3 min 05 s", "1 h 02 min". */
export function duration(value) {
  if (typeof value !== "number") return "–";
  if (Math.abs(value) < 60) return `${seconds[Math.abs(value) < 10 ? 1 : 0].format(value)} s`;
  const whole = Math.round(value);
  if (whole < 3600) return `${Math.floor(whole / 60)} min ${pad(whole % 60)} s`;
  return `${count(Math.floor(whole / 3600))} h ${pad(Math.floor((whole % 3600) / 60))} min`;
}

/** Formats the seconds since the launch: "0:05", "12:30", "1:02:03"; adds tenths if they are not 0. */
export function sinceLaunch(value) {
  if (typeof value !== "number") return "–";
  const sign = value < 0 ? "−" : "";
  const tenths = Math.round(Math.abs(value) * 10);
  const whole = Math.floor(tenths / 10);
  const hours = Math.floor(whole / 3600);
  const minutes = Math.floor((whole % 3600) / 60);
  const head = hours > 0 ? `${hours}:${pad(minutes)}` : `${minutes}`;
  return `${sign}${head}:${pad(whole % 60)}${tenths % 10 ? `.${tenths % 10}` : ""}`;
}

/** Formats milliseconds since 1970 as a local time, with the date unless it is today. */
export function clock(milliseconds) {
  if (!milliseconds) return "–";
  const date = new Date(Number(milliseconds));
  const time = `${pad(date.getHours())}:${pad(date.getMinutes())}:${pad(date.getSeconds())}`;
  if (date.toDateString() === new Date().toDateString()) return time;
  return `${date.getFullYear()}-${pad(date.getMonth() + 1)}-${pad(date.getDate())} ${time}`;
}

/** Returns the JSON of a value, with every digit of a BigInt if the browser can write it. */
export function stringify(value, indent) {
  const exact = (key, member) =>
    typeof member === "bigint" ? (JSON.rawJSON?.(member.toString()) ?? Number(member)) : member;
  return JSON.stringify(value, exact, indent) ?? "null";
}

/** Returns a value as short text: a text unchanged, everything else as JSON. */
export function shown(value) {
  return typeof value === "string" ? value : stringify(value);
}

export function typeOf(value) {
  if (value === null) return "null";
  if (Array.isArray(value)) return "list";
  return { string: "text", bigint: "number", boolean: "bool" }[typeof value] ?? typeof value;
}

/** Returns true for an attribute that the library itself adds to an event. */
export const isOfLibrary = (name) => name.startsWith("klv_");

/** Returns the host's own attributes as "item=book  price=12.5", cut after `limit` letters. */
export function preview(attributes, limit = 160) {
  let text = "";
  for (const [name, value] of Object.entries(attributes ?? {})) {
    if (isOfLibrary(name)) continue;
    text += `${text && "  "}${name}=${shown(value)}`;
    if (text.length > limit) return `${text.slice(0, limit)}…`;
  }
  return text;
}

const token = /"(?:[^"\\]|\\.)*"(\s*:)?|-?\d[\d.eE+-]*|true|false|null|[{}[\],]|\s+|./gs;

/** Yields the tokens of a JSON text unchanged, each as [text, class]. */
function* tokens(text) {
  for (const [piece, colon] of text.matchAll(token)) {
    if (piece[0] === '"') yield [piece, colon === undefined ? "json-text" : "json-key"];
    else if (/^[-\d]/.test(piece)) yield [piece, "json-number"];
    else if (/^(true|false|null)$/.test(piece)) yield [piece, "json-word"];
    else yield [piece, null];
  }
}

/** Returns the JSON with line breaks and indentation. Numbers and texts stay unchanged. */
export function indented(text) {
  let result = "";
  let depth = 0;
  const newLine = () => `\n${"  ".repeat(depth)}`;
  const pieces = [...tokens(text)].map(([piece]) => piece).filter((piece) => piece.trim() !== "");
  pieces.forEach((piece, at) => {
    const empty = /^[{[]$/.test(piece) && /^[}\]]$/.test(pieces[at + 1]);
    if (/^[{[]$/.test(piece)) {
      depth += 1;
      result += empty ? piece : piece + newLine();
    } else if (/^[}\]]$/.test(piece)) {
      depth -= 1;
      result += /^[{[]$/.test(pieces[at - 1]) ? piece : newLine() + piece;
    } else if (piece === ",") {
      result += piece + newLine();
    } else {
      result += piece.endsWith(":") ? `${piece} ` : piece;
    }
  });
  return result;
}

/** Returns the text of a key token of JSON. */
function keyOf(piece) {
  try {
    return JSON.parse(piece.replace(/\s*:$/, ""));
  } catch {
    return null;
  }
}

/** Returns the JSON text unchanged, as coloured elements. Marks the keys that are `marked`. */
export function coloured(text, marked = "") {
  return [...tokens(text)].map(([piece, kind]) => {
    if (!kind) return piece;
    const isMarked = marked !== "" && kind === "json-key" && keyOf(piece) === marked;
    return h("span", { class: isMarked ? `${kind} marked` : kind }, piece);
  });
}
