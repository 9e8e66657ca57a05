// One event unfolded: its attributes and the JSON as received. One attribute may be marked.

import { get } from "./api.js";
import { h } from "./dom.js";
import { coloured, count, indented, isOfLibrary, plural, shown, typeOf } from "./format.js";

/** Returns the attributes of an event. For an aggregate, each lists its values with their counts: "5 × 3, 4 × 1". */
export function attributesOf(event) {
  const attributes = event.attributes ?? {};
  if (event.kind !== "aggregate") return attributes;
  const tally = (values) => values.map(([value, times]) => `${shown(value)} × ${count(times)}`).join(", ");
  return Object.fromEntries(Object.entries(attributes).map(([name, values]) => [name, tally(values)]));
}

/** Returns the details of `event`. Marks the attribute called `marked`, also if the event lacks it. */
export function eventDetails(event, marked = "") {
  const attributes = Object.entries(attributesOf(event))
    .sort(([one], [other]) => isOfLibrary(one) - isOfLibrary(other));
  const mark = (name) => (marked !== "" && name === marked ? "marked" : null);
  const rows = attributes.map(([name, value]) => [
    h("dt", { class: mark(name) }, name),
    h("dd", { class: mark(name) ?? (isOfLibrary(name) ? "muted" : null) }, h("span", { class: "value" }, shown(value)),
      event.kind !== "aggregate" && h("span", { class: "type" }, typeOf(value))),
  ]);
  if (marked !== "" && !Object.hasOwn(event.attributes ?? {}, marked)) {
    rows.push([h("dt", { class: "marked" }, marked), h("dd", { class: "marked muted" }, "not there")]);
  }
  const table = rows.length === 0
    ? h("p", { class: "muted" }, "No attributes.")
    : h("dl", { class: "attributes" }, rows);
  const received = h("div", { class: "received" }, h("p", { class: "muted" }, "Loading"));
  get("/debug/event", { id: event.id })
    .then((answer) => received.replaceChildren(...jsonView(answer, marked)))
    .catch((error) => received.replaceChildren(h("p", { class: "bad-text" }, error.message)));
  return h("div", { class: "columns" },
    h("div", {}, h("h4", {}, plural(attributes.length, "attribute")), table), received);
}

/** Returns the JSON as received, with a button that indents it. */
function jsonView(answer, marked) {
  const code = h("code", {}, coloured(answer.json, marked));
  const wrap = h("button", { type: "button", class: "chip", "aria-pressed": "false" }, "Indented");
  wrap.addEventListener("click", () => {
    const on = wrap.getAttribute("aria-pressed") !== "true";
    wrap.setAttribute("aria-pressed", String(on));
    code.replaceChildren(...coloured(on ? indented(answer.json) : answer.json, marked));
  });
  const copy = h("button", { type: "button", class: "chip" }, "Copy");
  copy.addEventListener("click", async () => {
    await navigator.clipboard.writeText(answer.json);
    copy.textContent = "Copied";
  });
  return [
    h("h4", {}, `JSON as received, request ${answer.request}`, h("span", { class: "actions" }, wrap, copy)),
    h("pre", { class: "json" }, code),
  ];
}
