// The page: its six views, the tabs that switch between them, and the stream that keeps them current.

import { followStream, get, post } from "./api.js";
import { AggregatesView } from "./aggregates.js";
import { AllEventsView } from "./allevents.js";
import { byId, coalesced, rove } from "./dom.js";
import { ExpectationsView } from "./expectations.js";
import { count, plural } from "./format.js";
import { LiveView } from "./live.js";
import { QualityView } from "./quality.js";
import { ServiceView } from "./service.js";

const TABS = ["live", "events", "quality", "expectations", "aggregates", "service"];

/** Shows an error until the next success; null hides it. */
function report(error) {
  const notice = byId("notice");
  notice.hidden = error === null;
  notice.textContent = error?.message ?? "";
}

const live = new LiveView(report);
const open = (session, event, attribute) => {
  show("live");
  live.open(session, event, attribute).catch(report);
};
const events = new AllEventsView(open, report);
const quality = new QualityView(live.sessions, open, report);
const expectations = new ExpectationsView(open, report);
const aggregates = new AggregatesView(live.sessions, report);
const service = new ServiceView(showSwitches, report);
const views = { events, quality, expectations, aggregates };
let current = "live";

const refreshTotals = coalesced(async () => {
  const totals = await get("/debug/counts");
  byId("totals").textContent =
    `${plural(totals.sessions, "session")} · ${plural(totals.chunks, "chunk")} · ${plural(totals.events, "event")}`;
  byId("problem-count").hidden = totals.problems === 0;
  byId("problem-count").textContent = count(totals.problems);
  byId("bad-count").hidden = totals.bad === 0;
  byId("bad-count").textContent = `${count(totals.bad)} bad`;
}, report, 1000);

/** Shows the number of active switches on the tab, because a forgotten switch is easily taken for a fault. */
function showSwitches(service) {
  const switches = service.answers.length + (service.enabled ? 0 : 1);
  const badge = byId("switch-count");
  badge.hidden = switches === 0;
  badge.textContent = `${switches} on`;
  badge.title = "The service does not answer as usual";
}

function show(name) {
  current = name;
  for (const tab of TABS) {
    byId(`panel-${tab}`).hidden = tab !== name;
    byId(`tab-${tab}`).setAttribute("aria-selected", String(tab === name));
    byId(`tab-${tab}`).tabIndex = tab === name ? 0 : -1;
  }
  views[name]?.refresh();
}

function choose(tab) {
  const name = tab.id.slice("tab-".length);
  history.replaceState(null, "", `#${name}`);
  show(name);
}

function onEvent(type, data) {
  if (type === "resync" || type === "reset") report(null);
  if (type === "service" || type === "resync") service.refresh();
  if (type === "service") {
    refreshTotals(); // the checks or expectations may have changed
    if (current === "quality" || current === "expectations") views[current].refresh();
    return;
  }
  live.onEvent(type, data);
  refreshTotals();
  views[current]?.refresh();
}

function onState(state) {
  const connection = byId("connection");
  connection.dataset.state = state;
  connection.textContent = state === "live" ? "Live" : "Collector not reachable";
}

const tabs = document.querySelector('[role="tablist"]');
for (const tab of TABS) byId(`tab-${tab}`).addEventListener("click", (event) => choose(event.currentTarget));
rove(tabs, '[role="tab"]', choose);

const dialog = byId("forget-dialog");
byId("forget").addEventListener("click", () => dialog.showModal());
byId("forget-no").addEventListener("click", () => dialog.close());
byId("forget-yes").addEventListener("click", () => {
  dialog.close();
  post("/debug/reset").then(() => report(null), report);
});

const [name, session] = location.hash.slice(1).split("/");
if (TABS.includes(name)) show(name);
if (session) live.open(decodeURIComponent(session)).catch(() => {});
followStream(onEvent, onState);
