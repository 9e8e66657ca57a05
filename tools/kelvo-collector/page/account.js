// Compares a device's own counts of its events with the events that arrived.

import { h } from "./dom.js";
import { count, plural } from "./format.js";

/** Returns "none is", "1 is" or "2 are", with other verbs as given. */
const some = (number, one, many) => `${number === 0 ? "none" : count(number)} ${number > 1 ? many : one}`;

function ledgerOf({ chunk, counts, received }) {
  const of = (name) => Number(counts[name] ?? 0);
  const evicted = of("evictedForSpace") + of("evictedForAge");
  const waiting = "waiting" in counts
    ? of("waiting") : of("stored") - of("notForUpload") - of("accepted") - evicted - of("lost");
  return [
    `When it sent chunk ${chunk}: ${plural(waiting, "event")} of this device ${waiting === 1 ? "waits" : "wait"} on it, ` +
      `${some(evicted, "was", "were")} evicted, ${some(of("lost"), "is", "are")} lost.`,
    `The device knows of ${plural(of("accepted"), "accepted event")}; the collector has ${count(received)}.`,
  ];
}

/** Returns a paragraph for a session's details, null if the device says nothing. */
export function accountOf({ evicted, ledger }) {
  const sentences = [];
  if (evicted?.chunks > 0) {
    sentences.push(`Evicted by the device: ${plural(evicted.events, "event")} in ${plural(evicted.chunks, "chunk")}.`);
  }
  if (evicted?.explained > 0) {
    sentences.push(`${plural(evicted.explained, "chunk number")} of this session ` +
      `${evicted.explained === 1 ? "is" : "are"} not missing but evicted.`);
  }
  if (ledger) sentences.push(...ledgerOf(ledger));
  return sentences.length > 0 ? h("p", { class: "account" }, sentences.join(" ")) : null;
}
