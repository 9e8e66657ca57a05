// The live view: the chosen session's properties, timeline and events. The stream keeps it current.

import { accountOf } from "./account.js";
import { get } from "./api.js";
import { byId, coalesced, h, reconcile } from "./dom.js";
import { EventList } from "./events.js";
import { clock, count, duration, shown } from "./format.js";
import { icon, labelOf, sortedKinds } from "./kinds.js";
import { SessionList, flagsOf, versionOf } from "./sessions.js";
import { Timeline } from "./timeline.js";

const TYPING_PAUSE = 200; // milliseconds

export class LiveView {
  #id = null;
  #sessionChanged = true; // since the last timeline
  #kind = "";

  constructor(onError) {
    this.onError = onError;
    this.sessions = new SessionList((row, byUser) => this.#chosen(row, byUser), onError);
    this.events = new EventList({
      list: byId("events"), newer: byId("newer"), range: byId("event-range"),
      newerPage: byId("newer-page"), olderPage: byId("older-page"),
    }, onError);
    this.timeline = new Timeline(byId("plot"), byId("readout"), (kind, name) => {
      this.#filterKind(kind);
      this.#filterName(name);
    }, (from, to) => get("/debug/timeline", { session: this.#id, from, to }).then((part) => part.points, onError));
    let typing = 0;
    byId("event-text").addEventListener("input", (event) => {
      clearTimeout(typing);
      typing = setTimeout(() => this.events.filter({ text: event.target.value }), TYPING_PAUSE);
    });
    byId("event-name").addEventListener("click", () => this.#filterName(null));
    this.follow = byId("follow");
    this.follow.addEventListener("change", () => this.#chooseNewest());
    this.reload = coalesced(() => this.#reload(), onError);
    this.refreshTimeline = coalesced(() => this.#loadTimeline(), onError, 250);
    this.refreshHead = coalesced(() => this.#loadHead(), onError, 250);
    byId("zoom-in").addEventListener("click", () => this.timeline.zoom(0.5));
    byId("zoom-out").addEventListener("click", () => this.timeline.zoom(2));
    byId("zoom-all").addEventListener("click", () => this.timeline.zoom(0));
    byId("welcome-command").textContent = `export KELVO_SERVER_BASE_URL=${location.origin}\n./your-application`;
  }

  onEvent(type, data) {
    if (type === "session") {
      this.sessions.put(data).then(() => this.#chooseNewest());
      if (data.id === this.#id) this.refreshHead();
    } else if (type === "chunk" && data.session === this.#id) {
      this.refreshTimeline();
      this.events.refresh();
    } else if (type === "resync") {
      this.reload();
    } else if (type === "erased") {
      this.#leaveErased().then(this.reload, this.onError);
    } else if (type === "reset") {
      this.sessions.forget();
      this.#id = null;
      this.follow.checked = true;
      this.reload();
    }
  }

  /** Chooses a session, unfolds `event` and marks `attribute` in it, if given. Rejects if the session is unknown. */
  async open(id, event = null, attribute = "") {
    this.follow.checked = false;
    if (!this.sessions.rows().some((row) => row.id === id)) {
      await this.sessions.put((await get("/debug/session", { id })).session, true);
    }
    this.sessions.choose(id, true);
    if (event === null) return;
    this.#filterKind("");
    byId("event-text").value = "";
    this.#filterName(null);
    this.events.filter({ text: "" });
    this.events.open(event, attribute);
  }

  /** Leaves the chosen session if it was erased. */
  async #leaveErased() {
    if (!this.#id) return;
    const { sessions } = await get("/debug/sessions", { find: this.#id, limit: 1 });
    if (sessions.length > 0) return;
    this.sessions.forget();
    this.#id = null;
  }

  async #reload() {
    const id = this.#id;
    await this.sessions.load();
    // A session that the user chose may not be on the first page.
    if (id && !this.sessions.chosen) {
      try {
        await this.sessions.put((await get("/debug/session", { id })).session, true);
      } catch {
        this.sessions.forget();
        this.#id = null;
        await this.sessions.load();
      }
    }
    this.#chooseNewest();
    if (id && id === this.#id) {
      this.refreshHead();
      this.refreshTimeline();
      this.events.refresh();
    }
  }

  #chooseNewest() {
    const newest = this.sessions.rows()[0];
    if (newest && (this.follow.checked || !this.sessions.chosen)) this.sessions.choose(newest.id);
    const empty = this.sessions.size === 0 && byId("find-session").value === "";
    byId("welcome").hidden = !empty;
    byId("chosen").hidden = !this.sessions.chosen;
  }

  #chosen(row, byUser) {
    if (byUser) {
      this.follow.checked = false;
      history.replaceState(null, "", `#live/${encodeURIComponent(row.id)}`);
    }
    this.#id = row.id;
    this.#sessionChanged = true;
    byId("chosen").hidden = false;
    byId("session-head").replaceChildren(...headOf(row));
    this.events.show(row.id);
    this.#filterName(null);
    this.#filterKind("");
    this.refreshHead();
    this.refreshTimeline();
  }

  async #loadHead() {
    const id = this.#id;
    const details = await get("/debug/session", { id });
    if (id !== this.#id) return;
    const head = byId("session-head");
    const open = head.querySelector("details")?.open;
    head.replaceChildren(...headOf(details.session, details));
    if (open) head.querySelector("details").open = true;
  }

  async #loadTimeline() {
    const id = this.#id;
    const [data, all] = await Promise.all([get("/debug/timeline", { session: id }), get("/debug/counts")]);
    if (id !== this.#id) return;
    this.timeline.show(data, this.#sessionChanged);
    this.#sessionChanged = false;
    // Some kinds have no marks, so their number in this session is unknown.
    const totals = new Map(Object.keys(all.byKind).map((kind) => [kind, null]));
    for (const point of data.points) totals.set(point.kind, (totals.get(point.kind) ?? 0) + point.count);
    if (!data.sampled && data.screens.length > 0) totals.set("navigation", data.screens.length);
    this.#legend(totals);
  }

  #legend(totals) {
    const host = byId("kinds");
    reconcile(host, ["", ...sortedKinds(totals.keys())], (kind) => kind, (kind) => {
      const label = kind === "" ? "All" : [icon(kind), labelOf(kind), h("span", { class: "number" })];
      const chosen = String(kind === this.#kind);
      const choose = () => this.#filterKind(kind);
      const attributes = { "aria-pressed": chosen, "data-kind": kind, click: choose };
      return h("button", { type: "button", class: "chip", ...attributes }, label);
    });
    for (const number of host.querySelectorAll(".number")) {
      const total = totals.get(number.parentElement.itemKey);
      number.textContent = total === null ? "" : count(total);
    }
  }

  #filterName(name) {
    const chip = byId("event-name");
    chip.hidden = name === null;
    chip.textContent = `Name: ${name} ×`;
    chip.setAttribute("aria-label", `Show all names, not only ${name}`);
    this.events.filter({ name });
  }

  /** Applies to the plot and the list. */
  #filterKind(kind) {
    this.#kind = kind;
    for (const button of byId("kinds").children) {
      button.setAttribute("aria-pressed", String(button.dataset.kind === kind));
    }
    this.timeline.emphasise(kind);
    this.events.filter({ kind });
  }
}

function headOf(row, details = null) {
  const fact = (name, value) => h("div", {}, h("dt", {}, name), h("dd", {}, value || "–"));
  return [
    h("div", { class: "title" },
      h("h2", {}, row.app_name || row.application, " ", versionOf(row)),
      row.user ? h("span", { class: "user", title: "The host's id of its user" }, row.user) : null,
      flagsOf(row)),
    h("dl", { class: "facts" },
      fact("Launched", `${clock(row.launch_time)}, ${row.launch_type || "–"}`),
      fact("Duration", duration(row.duration)),
      fact("Device", [row.hardware_model, row.os_version].filter(Boolean).join(" · ")),
      fact("Chunks", count(row.chunks)),
      fact("Events", count(row.events)),
      fact("Last received", clock(row.last_received)),
      fact("Session", h("code", {}, row.id))),
    details ? accountOf(details) : null,
    details ? recordsOf(details) : null,
  ].filter(Boolean);
}

/** Returns the session's records as they were last received. */
function recordsOf(details) {
  const { record, user, device, app, sdk, ledger } = details;
  const parts = { Session: record, User: user, Device: device, Application: app, SDK: sdk };
  if (ledger) parts.Ledger = ledger.counts;
  return h("details", {},
    h("summary", {}, "Session, user, device, application and SDK records"),
    h("div", { class: "records" }, Object.entries(parts).map(([name, members]) =>
      h("div", {}, h("h4", {}, name),
        h("dl", { class: "attributes" }, Object.entries(members ?? {}).map(([key, value]) => [
          h("dt", {}, key), h("dd", {}, h("span", { class: "value" }, shown(value))),
        ]))))));
}
