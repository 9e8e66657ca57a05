// The events of a session as a paged list, newest first, filtered by kind, name and text. Each unfolds to its
// attributes and the JSON as received.

import { get } from "./api.js";
import { byId, coalesced, disclosure, h, reconcile } from "./dom.js";
import { coloured, count, indented, plural, preview, shown, sinceLaunch, stringify, typeOf } from "./format.js";
import { icon, labelOf } from "./kinds.js";

const PAGE = 100;
const TYPING_PAUSE = 200;
// An aggregate's row shows its counts so far, so it changes. All other events stay as received.
const keyOf = (event) => (event.kind === "aggregate" ? `${event.id} ${stringify(event.attributes)}` : event.id);
// The position of a page: below event `after`, with `before` events on the earlier pages (null: unknown).
const FIRST = { after: null, before: 0 };

/** Returns the title of an event. An observation's name is only a number, so its message is used. */
function titleOf(event) {
  const message = event.kind === "observation" ? event.attributes?.error_message : null;
  return typeof message === "string" && message !== "" ? message : event.name;
}

/** Returns the attributes of an event. For an aggregate, each lists its values with their counts: "5 × 3, 4 × 1". */
function attributesOf(event) {
  const attributes = event.attributes ?? {};
  if (event.kind !== "aggregate") return attributes;
  const tally = (values) => values.map(([value, times]) => `${shown(value)} × ${count(times)}`).join(", ");
  return Object.fromEntries(Object.entries(attributes).map(([name, values]) => [name, tally(values)]));
}

export class EventList {
  #session = null;
  #filter = { kind: "", name: null, text: "" };
  #pages = [FIRST]; // the positions of the pages up to this one
  #newest = 0; // the greatest id shown so far; events above it are new
  #wanted = null; // the event to unfold once it is loaded
  #turns = 0; // counts page changes; an answer to an earlier page is dropped
  #replace = false; // the next answer replaces the whole list

  constructor(onError) {
    this.list = byId("events");
    this.newer = byId("newer");
    this.range = byId("event-range");
    this.nameChip = byId("event-name");
    this.refresh = coalesced(() => this.#load(), onError, 100);
    let typing = 0;
    byId("event-text").addEventListener("input", (event) => {
      clearTimeout(typing);
      typing = setTimeout(() => this.filter({ text: event.target.value }), TYPING_PAUSE);
    });
    this.nameChip.addEventListener("click", () => this.filter({ name: null }));
    this.newer.addEventListener("click", () => this.#first());
    byId("newer-page").addEventListener("click", () => this.#turn(-1));
    byId("older-page").addEventListener("click", () => this.#turn(1));
  }

  show(session) {
    this.#session = session;
    this.#newest = 0;
    this.#apply({ kind: "", name: null });
  }

  filter(change) {
    if (Object.entries(change).some(([part, value]) => this.#filter[part] !== value)) this.#apply(change);
  }

  #apply(change) {
    Object.assign(this.#filter, change);
    const { name } = this.#filter;
    this.nameChip.hidden = name === null;
    this.nameChip.textContent = `Name: ${name} ×`;
    this.nameChip.setAttribute("aria-label", `Show all names, not only ${name}`);
    this.#first();
  }

  /** Unfolds the event `id`, whichever page it is on. */
  open(id) {
    this.#wanted = id;
    this.#pages = [FIRST, { after: id + 1, before: null }];
    this.#restart();
  }

  #first() {
    this.#pages = [FIRST];
    this.#restart();
  }

  #restart() {
    this.#turns += 1;
    this.#replace = true;
    this.refresh();
  }

  #turn(direction) {
    if (direction < 0 && this.#pages.length > 1) this.#pages.pop();
    if (direction > 0 && this.next) this.#pages.push(this.next);
    this.next = null;
    this.#restart();
  }

  async #load() {
    if (!this.#session) return;
    const [turn, replace, session, begin] = [this.#turns, this.#replace, this.#session, this.#pages.at(-1)];
    const { after } = begin;
    this.#replace = false;
    const { kind, name, text } = this.#filter;
    const page = await get("/debug/events", { session, kind, name, text, after, limit: PAGE, order: "desc" });
    if (turn !== this.#turns) return;
    if (!replace && this.#holdsBack(page)) return;

    // A chunk lists its events by kind. Sort them from the newest to the oldest.
    page.events.sort((a, b) => b.chunk - a.chunk || b.time - a.time || b.id - a.id);
    const { length } = page.events;
    const before = begin.before === null ? null : begin.before + length;
    this.next = page.next === null ? null : { after: page.next, before };
    const known = replace ? Infinity : this.#newest;
    if (replace) this.list.replaceChildren();
    reconcile(this.list, page.events, keyOf, (event) => this.#row(event, event.id > known));
    for (const event of page.events) this.#newest = Math.max(this.#newest, event.id);
    this.newer.hidden = true;
    this.#describe(page, begin.before);
    if (this.#wanted !== null) this.#unfoldWanted();
  }

  /**
   * Returns true if the new page would remove events that the user reads: unfolded ones, or a later page. Then a button
   * offers the new events instead.
   */
  #holdsBack(page) {
    const onPage = new Set(page.events.map(keyOf));
    const open = [...this.list.querySelectorAll('[aria-expanded="true"]')].map((b) => b.closest("li").itemKey);
    const holds = this.#pages.length > 1 || open.some((id) => !onPage.has(id));
    if (holds) this.newer.hidden = false;
    return holds;
  }

  #describe(page, before) {
    const { length } = page.events;
    let text = length === 0 ? "No events" : `${count(before + 1)}–${count(before + length)}`;
    if (length > 0 && typeof page.total === "number") text += ` of ${count(page.total)}`;
    // The collector examines a limited number of events per page, so a page may be empty without being the last.
    if (length === 0 && page.next) text = "None found yet; Older continues the search";
    if (length > 0 && before === null) text = "From the requested event";
    this.range.textContent = text;
    byId("newer-page").disabled = this.#pages.length === 1;
    byId("older-page").disabled = !page.next;
    const filtered = this.#filter.kind || this.#filter.text || this.#filter.name !== null;
    this.list.dataset.empty = filtered ? "No event fits the filter." : "No events in this session yet.";
  }

  #unfoldWanted() {
    const row = [...this.list.children].find((child) => child.itemKey === this.#wanted);
    this.#wanted = null;
    if (!row) return;
    const button = row.querySelector("button");
    button.click();
    button.focus();
    row.scrollIntoView({ block: "nearest" });
  }

  #row(event, fresh) {
    const { button, body } = disclosure({ class: "event-head" }, "", () => this.#details(event, body));
    button.append(
      h("span", { class: "time" }, sinceLaunch(event.time)),
      h("span", { class: "kind" }, icon(event.kind), labelOf(event.kind)),
      h("span", { class: "name" }, titleOf(event) || h("em", {}, "(no name)")),
      h("span", { class: "preview" }, preview(attributesOf(event))),
      h("span", { class: "chunk-number", title: "Chunk" }, event.chunk === null ? "" : `#${event.chunk}`),
    );
    return h("li", { class: fresh ? "fresh" : null, "data-kind": event.kind }, button, body);
  }

  #details(event, body) {
    const attributes = Object.entries(attributesOf(event));
    const table = attributes.length === 0
      ? h("p", { class: "muted" }, "No attributes.")
      : h("dl", { class: "attributes" }, attributes.map(([name, value]) => [
          h("dt", {}, name),
          h("dd", {}, h("span", { class: "value" }, shown(value)),
            event.kind !== "aggregate" && h("span", { class: "type" }, typeOf(value))),
        ]));
    const received = h("div", { class: "received" }, h("p", { class: "muted" }, "Loading"));
    get("/debug/event", { id: event.id })
      .then((answer) => received.replaceChildren(...jsonView(answer)))
      .catch((error) => received.replaceChildren(h("p", { class: "bad-text" }, error.message)));
    body.classList.add("details");
    return h("div", { class: "columns" },
      h("div", {}, h("h4", {}, plural(attributes.length, "attribute")), table), received);
  }
}

/** Returns the JSON as received, with a button that indents it. */
function jsonView(answer) {
  const code = h("code", {}, coloured(answer.json));
  const wrap = h("button", { type: "button", class: "chip", "aria-pressed": "false" }, "Indented");
  wrap.addEventListener("click", () => {
    const on = wrap.getAttribute("aria-pressed") !== "true";
    wrap.setAttribute("aria-pressed", String(on));
    code.replaceChildren(...coloured(on ? indented(answer.json) : answer.json));
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
