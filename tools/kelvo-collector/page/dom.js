// Builds elements. Received data becomes text or attribute values here, never markup.

const SVG = "http://www.w3.org/2000/svg";

function fill(element, attributes, children) {
  for (const [name, value] of Object.entries(attributes ?? {})) {
    if (value === null || value === undefined || value === false) continue;
    if (typeof value === "function") element.addEventListener(name, value);
    else element.setAttribute(name, value === true ? "" : String(value));
  }
  element.append(...children.flat(Infinity).filter((child) => ![null, undefined, false].includes(child)));
  return element;
}

/** Returns an HTML element. An attribute that is a function becomes a listener for the event of that name. */
export function h(tag, attributes, ...children) {
  return fill(document.createElement(tag), attributes, children);
}

/** As `h`, but returns an SVG element. */
export function s(tag, attributes, ...children) {
  return fill(document.createElementNS(SVG, tag), attributes, children);
}

export function byId(id) {
  return document.getElementById(id);
}

/**
 * Updates the children of `parent`: one element per item, in the order of `items`. Elements of known items are not
 * rebuilt, and moved only if necessary, so that focus, selection and unfolded details survive.
 */
export function reconcile(parent, items, keyOf, create) {
  const known = new Map([...parent.children].map((child) => [child.itemKey, child]));
  const wanted = new Set(items.map(keyOf));
  for (const [key, child] of known) if (!wanted.has(key)) child.remove();
  let at = parent.firstElementChild;
  for (const item of items) {
    const key = keyOf(item);
    let child = known.get(key);
    if (!child) {
      child = create(item);
      child.itemKey = key;
    }
    if (child === at) at = at.nextElementSibling;
    else parent.insertBefore(child, at);
  }
}

/** Lets arrow keys, Home and End move the focus in a row of buttons, of which only one is in the tab order. */
export function rove(container, selector, choose) {
  container.addEventListener("keydown", (event) => {
    const all = [...container.querySelectorAll(selector)];
    const at = all.indexOf(document.activeElement);
    const to = { ArrowRight: at + 1, ArrowLeft: at - 1, Home: 0, End: all.length - 1 }[event.key];
    if (at < 0 || to === undefined) return;
    event.preventDefault();
    const next = all[(to + all.length) % all.length];
    next.focus();
    choose(next);
  });
}

/** Returns a button that unfolds `body`. The first unfolding fills it with the result of `build`. */
export function disclosure(attributes, label, build) {
  const body = h("div", { class: "unfolded", hidden: true });
  const button = h("button", { type: "button", "aria-expanded": "false", ...attributes }, label);
  const toggle = () => {
    const open = button.getAttribute("aria-expanded") !== "true";
    button.setAttribute("aria-expanded", String(open));
    body.hidden = !open;
    if (open && !body.hasChildNodes()) body.append(...[build()].flat());
  };
  button.addEventListener("click", toggle);
  return { button, body, toggle };
}

/**
 * Returns a function that runs `work`, never twice at the same time. Calls during a run cause one further run. `pause`
 * is the time between two runs in milliseconds.
 */
export function coalesced(work, onError, pause = 150) {
  let running = false;
  let again = false;
  return async function run() {
    again = true;
    if (running) return;
    running = true;
    while (again) {
      again = false;
      try {
        await work();
      } catch (error) {
        onError(error);
      }
      await new Promise((resolve) => setTimeout(resolve, pause));
    }
    running = false;
  };
}
