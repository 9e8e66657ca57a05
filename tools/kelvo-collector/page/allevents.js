// The events of all sessions as a live list, with filters by name, kind, user and text.

import { get } from "./api.js";
import { byId, coalesced, h, reconcile } from "./dom.js";
import { EventList } from "./events.js";
import { count } from "./format.js";
import { labelOf, sortedKinds } from "./kinds.js";

const TYPING_PAUSE = 250; // milliseconds
const FILTERS = ["name", "kind", "user", "text"];

export class AllEventsView {
  /** Calls `onOpen(session, event)` when the user wants to see an event in its session. */
  constructor(onOpen, onError) {
    this.list = new EventList({
      list: byId("all-events"), newer: byId("all-newer"), range: byId("all-range"),
      newerPage: byId("all-newer-page"), olderPage: byId("all-older-page"),
    }, onError, onOpen);
    this.fields = Object.fromEntries(FILTERS.map((filter) => [filter, byId(`all-${filter}`)]));
    let typing = 0;
    for (const field of Object.values(this.fields)) {
      field.addEventListener("input", () => {
        clearTimeout(typing);
        typing = setTimeout(() => this.#filter(), field.type === "search" ? TYPING_PAUSE : 0);
      });
    }
    byId("all-clear").addEventListener("click", () => {
      for (const field of Object.values(this.fields)) field.value = "";
      this.#filter();
    });
    this.refreshChoices = coalesced(() => this.#loadChoices(), onError, 1000);
    this.list.show("");
  }

  refresh() {
    this.list.refresh();
    this.refreshChoices();
  }

  #filter() {
    const { name, kind, user, text } = this.fields;
    byId("all-clear").hidden = FILTERS.every((filter) => this.fields[filter].value === "");
    this.list.filter({ name: name.value || null, kind: kind.value, user: user.value.trim(), text: text.value });
  }

  async #loadChoices() {
    const { byKind, byName } = await get("/debug/counts");
    const names = new Map();
    for (const { name, count: times } of byName) names.set(name, (names.get(name) ?? 0) + times);
    const options = [...names].map(([name, times]) => ({ value: name, label: `${name || "(no name)"} (${count(times)})` }));
    choices(this.fields.name, "All names", options.filter(({ value }) => value !== ""));
    choices(this.fields.kind, "All kinds", sortedKinds(Object.keys(byKind))
      .map((kind) => ({ value: kind, label: `${labelOf(kind)} (${count(byKind[kind])})` })));
  }
}

/** Fills a select and keeps its choice. A chosen value that is gone stays until it is changed. */
function choices(select, all, options) {
  const chosen = select.value;
  if (chosen !== "" && !options.some(({ value }) => value === chosen)) options.push({ value: chosen, label: chosen });
  reconcile(select, [{ value: "", label: all }, ...options], ({ value }) => value, ({ value }) => h("option", { value }));
  for (const { value, label } of options) {
    const option = [...select.children].find((child) => child.itemKey === value);
    if (option.textContent !== label) option.textContent = label;
  }
  select.firstElementChild.textContent = all;
  select.value = chosen;
}
