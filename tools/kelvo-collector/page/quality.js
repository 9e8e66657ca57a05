// The problems of the received data, each with the offending value and a link to the event.

import { get } from "./api.js";
import { byId, coalesced, h, reconcile } from "./dom.js";
import { clock, count, shown } from "./format.js";
import { fillSessionSelect } from "./sessions.js";

const PAGE = 100;

const NAMES = {
  "missing-chunk": "Missing chunk",
  "chunk-order": "Chunks out of order",
  "conflicting-duplicate": "Same chunk, other events",
  "event-without-name": "Event without a name",
  "negative-duration": "Negative duration",
  "attribute-type-changes": "Attribute changes its type",
  "names-differ-in-case": "Names differ only in case",
  "too-many-values": "Too many values",
};

export class QualityView {
  #kind = "";
  #pages = 1;

  /** Calls `onOpen(session, event)` when the user wants to see the source of a problem. */
  constructor(sessions, onOpen, onError) {
    this.sessions = sessions;
    this.onOpen = onOpen;
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
    this.#legend(page.counts);
    const list = byId("problems");
    list.dataset.empty = this.#kind || filter.session ? "No such problem." : "No problems in the received data.";
    reconcile(list, problems, (problem) => problem.id, (problem) => this.#row(problem));
    this.more.hidden = !page.next;
  }

  #legend(counts) {
    const all = Object.values(counts).reduce((sum, number) => sum + number, 0);
    const chip = (kind, label, number) => h("button", {
      type: "button", class: "chip", "aria-pressed": String(kind === this.#kind),
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

  #row(problem) {
    const where = problem.chunk === null || problem.chunk === undefined ? "" : `chunk ${problem.chunk}`;
    return h("li", { class: "problem", "data-kind": problem.kind },
      h("div", { class: "what" },
        h("span", { class: "badge warn" }, NAMES[problem.kind] ?? problem.kind),
        h("span", { class: "message" }, problem.message)),
      h("code", { class: "offence" }, shown(problem.value)),
      h("div", { class: "where" },
        h("span", {}, [clock(problem.time), where].filter(Boolean).join(" · ")),
        problem.session ? h("button", {
          type: "button", class: "quiet", click: () => this.onOpen(problem.session, problem.event),
        }, problem.event ? "Show event" : "Show session") : null));
  }
}
