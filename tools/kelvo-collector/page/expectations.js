// The expectations: how many events of each name are good and bad, the bad ones, and the editor.

import { get, put } from "./api.js";
import { byId, coalesced, disclosure, h, reconcile } from "./dom.js";
import { TextEditor } from "./editors.js";
import { count, isOfLibrary, plural, stringify } from "./format.js";

const FEW = 10; // bad events in an unfolded row
const MOST_VALUES = 5; // values of an attribute that a draft lists
const ANY_OTHER = "*"; // the expectation for all names without one

export class ExpectationsView {
  /** Calls `onOpen(session, event, attribute)` when the user wants to see a bad event. */
  constructor(onOpen, onError) {
    this.onOpen = onOpen;
    this.onError = onError;
    this.refresh = coalesced(() => this.#load(), onError, 400);
    this.editor = new TextEditor("Edit",
      "For each name of an event: its attributes with their types, ranges or values. Every event, also an earlier one, is "
      + "judged when you apply a change.",
      "object", (answer) => answer.expectations, (text) => put("/debug/expectations", {}, text).then(this.refresh));
    this.editor.effect = "Applied.";
    this.names = h("select", { id: "draft-name", "aria-label": "Event to draft an expectation for" });
    const draft = h("button", { type: "button", id: "draft", click: () => this.#draft().catch(onError) }, "Draft from its events");
    byId("expectation-editor").append(this.editor.element);
    this.editor.element.querySelector("textarea").rows = 18;
    this.editor.element.querySelector("textarea").before(h("div", { class: "actions" }, this.names, draft));
  }

  async #load() {
    const [answer, counts] = await Promise.all([get("/debug/expectations"), get("/debug/counts")]);
    this.editor.show(answer);
    const app = counts.byName.filter(({ kind, name }) => kind === "app" && name !== "").map(({ name }) => name);
    reconcile(this.names, app, (name) => name, (name) => h("option", { value: name }, name));
    const expected = Object.keys(answer.expectations).filter((name) => name !== ANY_OTHER);
    const names = [...new Set([...expected, ...Object.keys(answer.bad).sort()])];
    const rows = names.map((name) => ({ name, good: answer.good[name] ?? 0, bad: answer.bad[name] ?? 0 }));
    const list = byId("expected");
    list.dataset.empty = "No expectations yet. Choose an event in the editor and draft one.";
    reconcile(list, rows, (row) => row.name, (row) => this.#row(row.name));
    const byKey = new Map(rows.map((row) => [row.name, row]));
    for (const row of list.children) row.update(byKey.get(row.itemKey));
  }

  #row(name) {
    const good = h("span", { class: "verdict good" });
    const bad = h("span", { class: "verdict bad" });
    const { button, body } = disclosure({ class: "row-head expected" }, "", () => {
      const host = h("ol", { class: "bad-events" });
      get("/debug/bad", { name, limit: FEW, order: "desc" })
        .then((answer) => host.replaceChildren(...this.#badEvents(answer)))
        .catch((error) => host.replaceChildren(h("li", { class: "bad-text" }, error.message)));
      return host;
    });
    button.append(h("span", { class: "name" }, name), good, bad);
    const row = h("li", {}, button, body);
    let drawn = null;
    row.update = (now) => {
      good.textContent = `${count(now.good)} good`;
      bad.textContent = `${count(now.bad)} bad`;
      bad.classList.toggle("none", now.bad === 0);
      if (drawn !== null && drawn !== now.bad && !body.hidden) { // shows the new events
        body.replaceChildren();
        button.click();
        button.click();
      } else if (drawn !== now.bad) {
        body.replaceChildren();
      }
      drawn = now.bad;
    };
    return row;
  }

  #badEvents({ events, count: all }) {
    if (events.length === 0) return [h("li", { class: "muted" }, "No bad event.")];
    const rest = all - events.length;
    return [...events.map((event) => h("li", {},
      h("ul", { class: "faults" }, event.faults.map(({ fault }) => h("li", {}, fault))),
      event.user ? h("span", { class: "user" }, event.user) : null,
      h("button", {
        type: "button", class: "quiet", click: () => this.onOpen(event.session, event.id, event.faults[0].attribute),
      }, "Show event"))),
    rest > 0 ? h("li", { class: "muted" }, `and ${plural(rest, "more event")}`) : null].filter(Boolean);
  }

  /** Adds an expectation for the chosen event to the editor's text, made from the attributes that arrived. */
  async #draft() {
    const name = this.names.value;
    if (name === "") return;
    const { events } = await get("/debug/aggregates", { name });
    const document = JSON.parse(this.editor.text());
    const attributes = (events[0]?.attributes ?? []).filter(({ name: attribute }) => !isOfLibrary(attribute));
    document[name] = { attributes: Object.fromEntries(attributes.map((one) => [one.name, ruleFor(one)])), others: true };
    this.editor.propose(stringify(document, 2));
    this.onError(null);
  }
}

/** Returns a rule that the attribute's most frequent value fits. */
function ruleFor(attribute) {
  const values = attribute.values.map(({ value }) => value).filter((value) => value !== null);
  if (values.length === 0) return {};
  const typeOf = (value) => (Array.isArray(value) ? "list"
    : { string: "text", bigint: "number", object: "dictionary" }[typeof value] ?? typeof value);
  const type = typeOf(values[0]);
  const fitting = values.filter((value) => typeOf(value) === type);
  const few = type === "text" && attribute.distinct <= MOST_VALUES;
  return few ? { type, values: fitting } : { type };
}
