// The requests of the page to the collector, and the event stream.

const RECONNECT_PAUSE = 2000; // milliseconds

/**
 * The token of a private collector, "" otherwise. It comes with the page's address, behind the "#", which a browser
 * never sends. The tab remembers it, so that the address can lose it.
 */
const token = (() => {
  const given = /^#token=([0-9a-f]+)$/.exec(location.hash)?.[1];
  if (given) {
    sessionStorage.setItem("token", given);
    history.replaceState(null, "", location.pathname + location.search);
  }
  return sessionStorage.getItem("token") ?? "";
})();

/** A request that failed. `errors` lists the faults of a refused document. */
export class Refusal extends Error {
  constructor(message, status, errors) {
    super(message);
    this.status = status;
    this.errors = errors;
  }
}

/** Returns integers that a double cannot hold as BigInt, if the browser passes their text to the reviver. */
function exact(key, value, context) {
  if (typeof value !== "number" || Number.isSafeInteger(value) || !/^-?\d+$/.test(context?.source ?? "")) return value;
  return BigInt(context.source);
}

async function ask(method, path, parameters, body) {
  const query = new URLSearchParams();
  for (const [name, value] of Object.entries(parameters ?? {})) {
    if (value !== null && value !== undefined && value !== "") query.set(name, value);
  }
  const address = `${query}` === "" ? path : `${path}?${query}`;
  const options = { method, cache: "no-store", headers: {} };
  if (token) options.headers.Authorization = `Bearer ${token}`;
  if (body !== undefined) {
    options.body = body;
    options.headers["Content-Type"] = "application/json";
  }
  let answer;
  try {
    answer = await fetch(address, options);
  } catch {
    throw new Refusal("The collector does not answer.", 0);
  }
  const text = await answer.text();
  let json = {};
  try {
    json = JSON.parse(text, exact);
  } catch {
    if (answer.ok) throw new Refusal(`${path} answered no JSON.`, answer.status);
  }
  if (!answer.ok) throw new Refusal(json.error ?? `${path} answered ${answer.status}.`, answer.status, json.errors);
  return json;
}

export const get = (path, parameters) => ask("GET", path, parameters);
/** `body` is JSON text. */
export const put = (path, parameters, body) => ask("PUT", path, parameters, body);
export const post = (path) => ask("POST", path);
export const remove = (path) => ask("DELETE", path);

/**
 * Follows the collector's event stream. Calls `onEvent(type, data)` for each event, and with the type "resync" whenever
 * the stream opens, because events may have been missed. Calls `onState` with "live" or "waiting".
 * Closes the stream while the page is hidden: a browser allows few connections per host, and hidden tabs would use
 * them up.
 */
export function followStream(onEvent, onState) {
  let source = null;
  const open = () => {
    // An EventSource cannot send a header.
    source = new EventSource(token ? `/debug/stream?token=${token}` : "/debug/stream");
    source.addEventListener("open", () => {
      onState("live");
      onEvent("resync", {});
    });
    source.addEventListener("error", () => {
      onState("waiting");
      // The browser does not reconnect after an answer that is not a stream.
      if (source.readyState === EventSource.CLOSED) setTimeout(reopen, RECONNECT_PAUSE);
    });
    for (const type of ["chunk", "session", "service", "erased", "reset"]) {
      source.addEventListener(type, (event) => onEvent(type, JSON.parse(event.data || "{}", exact)));
    }
  };
  const reopen = () => {
    source?.close();
    source = null;
    if (!document.hidden) open();
  };
  document.addEventListener("visibilitychange", reopen);
  reopen();
}
