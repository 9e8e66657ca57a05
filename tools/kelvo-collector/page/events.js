// Events as a paged list, newest first: those of one session, or of all. Each unfolds to its details.

import { get } from "./api.js";
import { attributesOf, eventDetails } from "./details.js";
import { coalesced, disclosure, h, reconcile } from "./dom.js";
import { clock, count, preview, sinceLaunch, stringify } from "./format.js";
import { icon, labelOf } from "./kinds.js";

const PAGE = 100;
const MOST_REQUESTS = 20; // for one page of a filter that fits few events
// An aggregate's row shows its counts so far, so it changes. All other events stay as received.
const keyOf = (event) => (event.kind === "aggregate" ? `${event.id} ${stringify(event.attributes)}` : event.id);
// The position of a page: below event `after`, with `before` events on the earlier pages (null: unknown).
const FIRST = { after: null, before: 0 };

/** Returns the title of an event. An observation's name is only a number, so its message is used. */
function titleOf(event) {
  const message = event.kind === "observation" ? event.attributes?.error_message : null;
  return typeof message === "string" && message !== "" ? message : event.name;
}

export class EventList {
  #session = null;
  #filter = { kind: "", name: null, text: "", user: "" };
  #pages = [FIRST]; // the positions of the pages up to this one
  #newest = 0; // the greatest id shown so far; events above it are new
  #wanted = null; // the event to unfold once it is loaded
  #marked = null; // the event and the attribute to mark in it
  #turns = 0; // counts page changes; an answer to an earlier page is dropped
  #replace = false; // the next answer replaces the whole list

  /**
   * `parts` are the elements: list, newer, range, newerPage, olderPage. With `onOpen(session, event)`, the list names the
   * user and the session of each event.
   */
  constructor(parts, onError, onOpen = null) {
    Object.assign(this, parts);
    this.onOpen = onOpen;
    this.list.classList.toggle("across", onOpen !== null);
    this.refresh = coalesced(() => this.#load(), onError, 100);
    this.newer.addEventListener("click", () => this.#first());
    this.newerPage.addEventListener("click", () => this.#turn(-1));
    this.olderPage.addEventListener("click", () => this.#turn(1));
  }

  /** Lists the events of a session, of all sessions if `session` is empty. */
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
    this.#first();
  }

  /** Unfolds the event `id`, whichever page it is on, and marks an attribute of it. */
  open(id, attribute = "") {
    this.#wanted = id;
    this.#marked = { id, attribute };
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
    if (this.#session === null) return;
    const [turn, replace, session, begin] = [this.#turns, this.#replace, this.#session, this.#pages.at(-1)];
    const { after } = begin;
    this.#replace = false;
    const filter = { session, ...this.#filter, limit: PAGE, order: "desc" };
    let page = await get("/debug/events", { ...filter, after });
    // The collector examines a limited number of events per request.
    for (let i = 1; i < MOST_REQUESTS && page.events.length === 0 && page.next && turn === this.#turns; i += 1) {
      page = await get("/debug/events", { ...filter, after: page.next });
    }
    if (turn !== this.#turns) return;
    if (!replace && this.#holdsBack(page)) return;

    // A chunk lists its events by kind. Sort them from the newest to the oldest.
    page.events.sort((a, b) => b.received - a.received || b.chunk - a.chunk || b.time - a.time || b.id - a.id);
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
    if (length === 0 && page.next) text = "None found yet; Older continues the search";
    if (length > 0 && before === null) text = "From the requested event";
    this.range.textContent = text;
    this.newerPage.disabled = this.#pages.length === 1;
    this.olderPage.disabled = !page.next;
    const filtered = this.#filter.kind || this.#filter.text || this.#filter.user || this.#filter.name !== null;
    const none = this.#session === "" ? "No events yet." : "No events in this session yet.";
    this.list.dataset.empty = filtered ? "No event fits the filter." : none;
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
      h("span", { class: "time" }, this.onOpen ? clock(event.received) : sinceLaunch(event.time)),
      h("span", { class: "kind" }, icon(event.kind), labelOf(event.kind)),
      h("span", { class: "name" }, titleOf(event) || h("em", {}, "(no name)")),
      h("span", { class: "preview" }, preview(attributesOf(event))),
      this.onOpen
        ? h("span", { class: "user", title: `Session ${event.session}` }, event.user || "–")
        : h("span", { class: "chunk-number", title: "Chunk" }, event.chunk === null ? "" : `#${event.chunk}`),
    );
    return h("li", { class: fresh ? "fresh" : null, "data-kind": event.kind }, button, body);
  }

  #details(event, body) {
    body.classList.add("details");
    const marked = this.#marked?.id === event.id ? this.#marked.attribute : "";
    const open = this.onOpen && h("button", { type: "button", class: "quiet", click: () => this.onOpen(event.session, event.id) },
      "Show in session");
    return [
      this.onOpen && h("p", { class: "whose" },
        event.user ? h("span", { class: "user" }, event.user) : null, h("code", {}, event.session), open),
      eventDetails(event, marked),
    ].filter(Boolean);
  }
}
