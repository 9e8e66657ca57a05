// The problems of the received data. Those of one kind and name share a row, which unfolds to the events at fault.

import { get, put } from "./api.js";
import { byId, coalesced, disclosure, h, reconcile } from "./dom.js";
import { clock, count, plural, stringify } from "./format.js";
import { eventDetails } from "./details.js";
import { fillSessionSelect } from "./sessions.js";

const PAGE = 100;
const FEW = 20; // occurrences in an unfolded row

// In the order of the rows.
const NAMES = {
  "not-as-expected": "Not as expected",
  "attribute-type-changes": "Attribute changes its type",
  "suspected-duplicate": "Suspected duplicate",
  "event-without-name": "Event without a name",
  "negative-duration": "Negative duration",
  "names-differ-in-case": "Names differ only in case",
  "missing-chunk": "Missing chunks",
  "chunk-order": "Chunks out of order",
  "conflicting-duplicate": "Same chunk, other events",
  "too-many-values": "Too many values",
};
const rank = ({ kind }) => Object.keys(NAMES).indexOf(kind);

export class QualityView {
  #kind = "";
  #pages = 1;

  /** Calls `onOpen(session, event, attribute)` when the user wants to see the source of a problem. */
  constructor(sessions, onOpen, onError) {
    this.sessions = sessions;
    this.onOpen = onOpen;
    this.onError = onError;
    this.select = byId("quality-session");
    this.more = byId("more-problems");
    this.refresh = coalesced(() => this.#load(), onError, 400);
    this.select.addEventListener("change", () => this.#restart());
    this.more.addEventListener("click", () => {
      this.#pages += 1;
      this.refresh();
    });
  }

  #restart() {
    this.#pages = 1;
    this.refresh();
  }

  async #load() {
    fillSessionSelect(this.select, this.sessions.rows());
    const filter = { session: this.select.value, kind: this.#kind, limit: PAGE };
    const problems = [];
    let page = null;
    for (let i = 0; i < this.#pages && (page === null || page.next); i += 1) {
      page = await get("/debug/problems", { ...filter, after: page?.next });
      problems.push(...page.problems);
    }
    problems.sort((a, b) => rank(a) - rank(b) || b.count - a.count || a.id - b.id);
    this.#legend(page.counts);
    const list = byId("problems");
    list.dataset.empty = this.#kind || filter.session ? "No such problem." : "No problems in the received data.";
    reconcile(list, problems, (problem) => problem.id, (problem) => this.#row(problem));
    const byKey = new Map(problems.map((problem) => [problem.id, problem]));
    for (const row of list.children) row.update(byKey.get(row.itemKey));
    this.more.hidden = !page.next;
    this.#showChecks(await get("/debug/checks"));
  }

  #legend(counts) {
    const all = Object.values(counts).reduce((sum, number) => sum + number, 0);
    const chip = (kind, label, number) => h("button", {
      type: "button", class: "chip", "aria-pressed": String(kind === this.#kind), "data-kind": kind,
      click: () => {
        this.#kind = kind;
        this.#restart();
      },
    }, label, h("span", { class: "number" }, count(number)));
    byId("problem-kinds").replaceChildren(
      chip("", "All", all),
      ...Object.entries(counts).filter(([kind, number]) => number > 0 || kind === this.#kind)
        .map(([kind, number]) => chip(kind, NAMES[kind] ?? kind, number)),
    );
  }

  #showChecks(checks) {
    reconcile(byId("checks"), Object.keys(checks), (kind) => kind, (kind) => {
      const box = h("input", { type: "checkbox", "data-check": kind });
      box.addEventListener("change", () => {
        put("/debug/checks", {}, JSON.stringify({ [kind]: box.checked })).then(this.refresh, this.onError);
      });
      return h("label", { class: "check" }, box, NAMES[kind] ?? kind);
    });
    for (const box of byId("checks").querySelectorAll("input")) box.checked = checks[box.dataset.check];
  }

  #row(problem) {
    const message = h("span", { class: "message" });
    const times = h("span", { class: "times" });
    const when = h("span", { class: "when" });
    const { button, body } = disclosure({ class: "row-head problem" }, "", () => {
      const host = h("div", { class: "fault" }, h("p", { class: "muted" }, "Loading"));
      get("/debug/problem", { id: problem.id, limit: FEW })
        .then((answer) => host.replaceChildren(...this.#fault(answer)))
        .catch((error) => host.replaceChildren(h("p", { class: "bad-text" }, error.message)));
      return host;
    });
    button.append(h("span", { class: "badge warn" }, NAMES[problem.kind] ?? problem.kind), message, times, when);
    const row = h("li", { "data-kind": problem.kind }, button, body);
    row.update = (now) => {
      message.textContent = now.message;
      times.textContent = now.count > 1 ? `× ${count(now.count)}` : "";
      when.textContent = clock(now.time);
    };
    return row;
  }

  /** Returns the unfolded row: the examples, and the event of one of them with the attribute marked. */
  #fault({ problem, occurrences, types = [] }) {
    const examples = types.length > 0
      ? types.map((type) => ({ ...type, label: `a ${type.type} ${plural(type.count, "time")}` }))
      : occurrences.map((one) => ({ ...one, label: "" }));
    if (examples.length === 0) examples.push({ ...problem, label: "" });
    const shownEvent = h("div", { class: "shown-event" });
    const buttons = examples.map((example) => {
      const value = h("code", { class: "offence" }, stringify(example.value));
      const where = [example.user, example.time && clock(example.time), example.chunk && `chunk ${example.chunk}`];
      const button = h("button", {
        type: "button", class: "example", "aria-pressed": "false", disabled: !example.event,
        click: () => {
          for (const other of buttons) other.setAttribute("aria-pressed", String(other === button));
          this.#showEvent(shownEvent, example.event, problem.attribute);
        },
      }, value, example.label && h("span", {}, example.label), h("span", { class: "when" }, where.filter(Boolean).join(" · ")));
      return button;
    });
    const open = problem.session && !problem.event && h("button", {
      type: "button", class: "quiet", click: () => this.onOpen(problem.session, null, ""),
    }, "Show session");
    if (examples[0].event) buttons[0].click();
    const rest = problem.count - examples.length;
    const more = types.length === 0 && problem.event && rest > 0 && h("p", { class: "muted" }, `${plural(rest, "more time")}.`);
    return [h("div", { class: "examples" }, buttons, more, open), shownEvent].filter(Boolean);
  }

  async #showEvent(host, id, attribute) {
    try {
      const { event } = await get("/debug/event", { id });
      const whose = h("p", { class: "whose" }, h("b", {}, event.name || "(no name)"),
        event.user ? h("span", { class: "user" }, event.user) : null, h("code", {}, event.session),
        h("button", { type: "button", class: "quiet", click: () => this.onOpen(event.session, id, attribute) },
          "Show in session"));
      host.replaceChildren(whose, eventDetails(event, attribute));
    } catch (error) {
      host.replaceChildren(h("p", { class: "bad-text" }, error.message));
    }
  }
}
