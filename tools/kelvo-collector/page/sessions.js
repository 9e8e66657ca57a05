// The list of sessions, newest first. A badge counts the events that arrived since a session was last shown.

import { get } from "./api.js";
import { byId, coalesced, h, reconcile } from "./dom.js";
import { clock, count, duration, plural } from "./format.js";

const PAGE = 50;
const MOST = 500; // sessions in the list before it is reloaded

/** A listbox. The focus stays on the list, whose aria-activedescendant is the chosen option. */
export class SessionList {
  #rows = new Map(); // id -> the row as last received
  #seen = new Map(); // id -> number of events when the session was last shown
  #optionIds = new Map();
  #next = null;
  #chosen = null;
  #find = ""; // text by which the list is limited
  #outside = null; // the chosen session if it does not fit that text; it is not in the list
  #putMeanwhile = null; // rows received while the list loads, and so newer than it

  /** Calls `onChoose(row, byUser)` when the chosen session changes. */
  constructor(onChoose, onError) {
    this.onChoose = onChoose;
    this.list = byId("sessions");
    this.older = byId("older-sessions");
    this.list.addEventListener("keydown", (event) => this.#key(event));
    this.older.addEventListener("click", () => this.#loadMore());
    this.reload = coalesced(() => this.load(), onError, 200);
    byId("find-session").addEventListener("input", (event) => {
      this.#find = event.target.value.trim();
      this.reload();
    });
  }

  get chosen() {
    return this.#rows.get(this.#chosen) ?? null;
  }

  get size() {
    return this.#rows.size;
  }

  /** Returns the rows, newest first. */
  rows() {
    return [...this.#rows.values()].filter((row) => row.id !== this.#outside).sort((a, b) => b.last_received - a.last_received || (a.id < b.id ? 1 : -1));
  }

  async load() {
    const first = this.#rows.size === 0;
    const meanwhile = (this.#putMeanwhile = new Map());
    const page = await get("/debug/sessions", { limit: PAGE, find: this.#find });
    if (meanwhile !== this.#putMeanwhile) return; // another load or a reset came first
    this.#putMeanwhile = null;
    const chosen = this.chosen;
    this.#rows.clear();
    this.#outside = null;
    if (chosen && this.#find !== "" && !page.sessions.some((row) => row.id === chosen.id)) {
      this.#rows.set(chosen.id, chosen);
      this.#outside = chosen.id;
    }
    for (const row of page.sessions) {
      this.#rows.set(row.id, row);
      // Events that arrived before the page opened are not new.
      if (first && !this.#seen.has(row.id)) this.#seen.set(row.id, row.events);
    }
    for (const [id, row] of meanwhile) this.#rows.set(id, row);
    this.#next = page.next;
    this.#draw();
  }

  async #loadMore() {
    const page = await get("/debug/sessions", { limit: PAGE, before: this.#next, find: this.#find });
    for (const row of page.sessions) {
      this.#rows.set(row.id, row);
      if (!this.#seen.has(row.id)) this.#seen.set(row.id, row.events);
    }
    this.#next = page.next;
    this.#draw();
  }

  /** Adds or replaces a row. While the list is limited, a new row appears only if it fits, or `always`. */
  async put(row, always = false) {
    if (this.#find !== "" && !always && !this.#rows.has(row.id)) {
      this.reload();
      return;
    }
    if (this.#find === "") this.#putMeanwhile?.set(row.id, row);
    this.#rows.set(row.id, row);
    if (this.#rows.size > MOST) await this.load();
    else this.#draw();
  }

  forget() {
    this.#rows.clear();
    this.#seen.clear();
    this.#optionIds.clear();
    this.#chosen = null;
    this.#outside = null;
    this.#next = null;
    this.#putMeanwhile = null;
    this.#draw();
  }

  choose(id, byUser = false) {
    const row = this.#rows.get(id);
    if (!row) return;
    const same = id === this.#chosen;
    this.#chosen = id;
    this.#draw();
    if (byUser) this.list.querySelector('[aria-selected="true"]')?.scrollIntoView({ block: "nearest" });
    if (!same) this.onChoose(row, byUser);
  }

  #key(event) {
    const rows = this.rows();
    const at = rows.findIndex((row) => row.id === this.#chosen);
    const to = { ArrowDown: at + 1, ArrowUp: at - 1, Home: 0, End: rows.length - 1 }[event.key];
    if (to === undefined || rows.length === 0) return;
    event.preventDefault();
    this.choose(rows[Math.min(Math.max(to, 0), rows.length - 1)].id, true);
  }

  #optionId(id) {
    if (!this.#optionIds.has(id)) this.#optionIds.set(id, `session-${this.#optionIds.size}`);
    return this.#optionIds.get(id);
  }

  #draw() {
    if (this.chosen) this.#seen.set(this.#chosen, this.chosen.events);
    this.list.dataset.empty = this.#find === "" ? "None yet" : "No session fits.";
    reconcile(this.list, this.rows(), (row) => row.id, (row) => this.#option(row));
    for (const option of this.list.children) this.#update(option, this.#rows.get(option.itemKey));
    this.older.hidden = this.#next === null || this.#next === undefined;
    if (this.chosen) this.list.setAttribute("aria-activedescendant", this.#optionId(this.#chosen));
    else this.list.removeAttribute("aria-activedescendant");
  }

  #option(row) {
    const option = h("li", { role: "option", id: this.#optionId(row.id), class: "fresh" });
    option.addEventListener("click", () => this.choose(row.id, true));
    return option;
  }

  #update(option, row) {
    const unseen = row.events - (this.#seen.get(row.id) ?? 0);
    option.setAttribute("aria-selected", String(row.id === this.#chosen));
    const state = JSON.stringify([row, unseen], (key, value) => (typeof value === "bigint" ? String(value) : value));
    if (option.drawn === state) return;
    option.drawn = state;
    const unusual = row.launch_type && row.launch_type !== "normal" ? ` · ${row.launch_type}` : "";
    option.replaceChildren(
      row.user
        ? h("span", { class: "name user" }, row.user)
        : h("span", { class: "name" }, row.app_name || row.application, " ", versionOf(row)),
      h("time", { class: "when" }, clock(row.launch_time)),
      h("span", { class: "machine" }, [row.user && (row.app_name || row.application), row.user && versionText(row), row.hardware_model, row.os_version, row.device].filter(Boolean).join(" · ")),
      h("span", { class: "facts" },
        h("span", {}, `${plural(row.events, "event")} · ${duration(row.duration)}${unusual}`),
        h("span", { class: "flags" }, flagsOf(row),
          unseen > 0
            ? h("span", { class: "badge new", title: "Arrived since you last looked" }, `${count(unseen)} new`)
            : null)),
    );
  }
}

/** Returns the version, null if the application has no bundle; its version is then "()". */
export function versionOf(row) {
  return versionText(row) ? h("span", { class: "version" }, row.app_version) : null;
}

function versionText(row) {
  return row.app_version && row.app_version !== "()" ? row.app_version : null;
}

/** Returns badges for a first launch, a fatal end and problems. */
export function flagsOf(row) {
  return [
    row.is_first_session ? h("span", { class: "badge" }, "first") : null,
    row.is_fatal ? h("span", { class: "badge bad" }, "fatal") : null,
    row.problems > 0 ? h("span", { class: "badge warn" }, plural(row.problems, "problem")) : null,
  ];
}

/** Fills a select with the sessions and keeps its choice. */
export function fillSessionSelect(select, rows) {
  const value = select.value;
  select.replaceChildren(
    h("option", { value: "" }, "All sessions"),
    ...rows.map((row) =>
      h("option", { value: row.id }, `${row.user || row.app_name || row.application} · ${clock(row.launch_time)}`)),
  );
  select.value = rows.some((row) => row.id === value) ? value : "";
}
