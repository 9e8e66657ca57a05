// The counts by event and attribute value, the users with the changes of their attributes, and the erased devices.

import { get } from "./api.js";
import { byId, coalesced, disclosure, h, reconcile, s } from "./dom.js";
import { clock, count, plural, preview, shown } from "./format.js";
import { fillSessionSelect } from "./sessions.js";

const FEW = 12; // values of an attribute before "more"
const BAR = 100; // pixels

export class AggregatesView {
  constructor(sessions, onError) {
    this.sessions = sessions;
    this.select = byId("aggregate-session");
    this.name = byId("aggregate-name");
    this.refresh = coalesced(() => this.#load(), onError, 400);
    this.select.addEventListener("change", this.refresh);
    this.name.addEventListener("input", () => this.#filter());
  }

  async #load() {
    fillSessionSelect(this.select, this.sessions.rows());
    const [aggregates, users, erased] = await Promise.all([
      get("/debug/aggregates", { session: this.select.value }), get("/debug/users"), get("/debug/erasures"),
    ]);
    const list = byId("aggregates");
    list.dataset.empty = "No application event has arrived.";
    aggregates.events.sort((a, b) => b.count - a.count);
    const most = aggregates.events.reduce((least, event) => Math.max(least, event.count), 1);
    // The key contains the counts, so a row is rebuilt when they change. An unfolded row is unfolded again.
    const opened = [...list.querySelectorAll('[aria-expanded="true"]')];
    const open = new Set(opened.map((button) => button.closest("li").eventName));
    reconcile(list, aggregates.events, (event) => `${event.name}\n${event.count}\n${most}`, (event) => {
      const row = this.#event(event, most);
      if (open.has(event.name)) row.querySelector("button").click();
      return row;
    });
    this.#filter();
    const userList = byId("users");
    userList.dataset.empty = "No user has arrived.";
    const keyOf = (user) => `${user.id}\n${user.application}\n${user.received}`;
    reconcile(userList, users.users, keyOf, (user) => this.#user(user));
    const erasures = byId("erasures");
    erasures.dataset.empty = "No device was erased.";
    reconcile(erasures, erased.erasures, (erasure) => erasure.id, erasureRow);
  }

  #filter() {
    const wanted = this.name.value.toLowerCase();
    for (const row of byId("aggregates").children) row.hidden = !row.eventName.toLowerCase().includes(wanted);
  }

  #event(event, most) {
    const { button, body } = disclosure({ class: "row-head" }, "", () =>
      h("div", { class: "value-lists" }, event.attributes.length === 0
        ? h("p", { class: "muted" }, "No attributes.")
        : event.attributes.map((attribute) => valueList(attribute))));
    button.append(h("span", { class: "name" }, event.name || h("em", {}, "(no name)")), bar(event.count, most),
      h("span", { class: "number" }, count(event.count)));
    const row = h("li", {}, button, body);
    row.eventName = event.name ?? "";
    return row;
  }

  #user(user) {
    const { button, body } = disclosure({ class: "row-head user" }, "", () => {
      const host = h("ol", { class: "history" });
      get("/debug/user", { id: user.id }).then((answer) => host.append(...answer.history.map(historyEntry)))
        .catch((error) => host.append(h("li", { class: "bad-text" }, error.message)));
      return host;
    });
    button.append(h("span", { class: "name" }, user.id || h("em", {}, "(no identifier)")),
      h("span", { class: "preview" }, preview(user.attributes)),
      h("span", { class: "when" }, `${user.application} · ${clock(user.received)}`));
    return h("li", {}, button, body);
  }
}

function erasureRow({ application, time, sessions, chunks, events, requests }) {
  const parts = [[sessions, "session"], [chunks, "chunk"], [events, "event"], [requests, "request"]];
  return h("li", { class: "erasure" }, h("span", { class: "name" }, application),
    h("span", {}, parts.map(([number, name]) => plural(number, name)).join(", "), " deleted"),
    h("span", { class: "when" }, clock(time)));
}

function bar(number, most) {
  const width = Math.max(1, (number / most) * BAR);
  const frame = { class: "bar", viewBox: `0 0 ${BAR} 8`, width: BAR, height: 8, preserveAspectRatio: "none" };
  return s("svg", { ...frame, "aria-hidden": "true" },
    s("rect", { class: "rail", width: BAR, height: 8, rx: 2 }),
    s("rect", { class: "fill", width: width.toFixed(1), height: 8, rx: 2 }));
}

function valueList(attribute) {
  const most = attribute.values.reduce((least, value) => Math.max(least, value.count), 1);
  const item = (value) => h("li", {}, h("span", { class: "value" }, shown(value.value)), bar(value.count, most),
    h("span", { class: "number" }, count(value.count)));
  const list = h("ul", {}, attribute.values.slice(0, FEW).map(item));
  const rest = attribute.values.slice(FEW);
  const more = rest.length > 0 && h("button", {
    type: "button", class: "quiet", click: () => {
      list.append(...rest.map(item));
      more.remove();
    },
  }, plural(rest.length, "more value"));
  const left = attribute.distinct > attribute.values.length &&
    h("p", { class: "muted" }, `The most frequent of ${count(attribute.distinct)} values`);
  return h("div", { class: "values" }, h("h4", {}, attribute.name), list, more, left);
}

function historyEntry(entry) {
  const changed = new Set(entry.changed);
  const gone = entry.changed.filter((name) => !Object.hasOwn(entry.attributes, name));
  if (Object.keys(entry.attributes).length + gone.length === 0) {
    return h("li", {}, h("time", {}, clock(entry.received)), h("p", { class: "muted" }, "No attributes."));
  }
  return h("li", {}, h("time", {}, clock(entry.received)),
    h("dl", { class: "attributes" },
      Object.entries(entry.attributes).map(([name, value]) => [
        h("dt", { class: changed.has(name) ? "changed" : null }, name),
        h("dd", {}, h("span", { class: "value" }, shown(value)),
          changed.has(name) ? h("span", { class: "badge new" }, "changed") : null),
      ]),
      gone.map((name) => [
        h("dt", { class: "changed" }, name), h("dd", {}, h("span", { class: "badge bad" }, "removed")),
      ])));
}
