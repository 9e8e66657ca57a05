// Editors of the service's documents. What is being edited is never overwritten by what is told from elsewhere.

import { h } from "./dom.js";
import { stringify } from "./format.js";

let editors = 0;

/** The frame that both kinds share: fields, messages, and the buttons that take or drop what was typed. */
class Editor {
  #stored = null; // what the service has, as text

  constructor(title, note, fields, send) {
    this.fields = fields;
    this.send = send;
    const id = `editor-${(editors += 1)}`;
    this.messages = h("ul", { class: "messages", id, role: "alert" });
    this.apply = h("button", { type: "button", class: "primary", disabled: true, click: () => this.#apply() }, "Apply");
    this.revert = h("button", { type: "button", disabled: true, click: () => this.#revert() }, "Revert");
    this.state = h("span", { class: "muted", role: "status" });
    for (const field of fields) {
      field.setAttribute("aria-describedby", id);
      field.addEventListener("input", () => this.#typed());
    }
    this.element = h("section", { class: "card editor" }, h("h2", {}, title), h("p", { class: "muted" }, note),
      this.form(), this.messages, h("div", { class: "actions" }, this.apply, this.revert, this.state));
  }

  show(service) {
    const stored = this.read(service);
    const edited = this.#stored !== null && this.text() !== this.#stored;
    const elsewhere = this.#stored !== null && stored !== this.#stored;
    this.#stored = stored;
    if (!edited || this.text() === stored) this.#revert();
    else if (elsewhere) this.state.textContent = "Changed elsewhere meanwhile; Apply would replace that.";
    this.#buttons();
  }

  #buttons() {
    const same = this.text() === this.#stored;
    this.apply.disabled = same || this.faults().length > 0;
    this.revert.disabled = same;
  }

  #tell(messages) {
    this.messages.replaceChildren(...messages.map((message) => h("li", {}, message)));
    for (const field of this.fields) field.setAttribute("aria-invalid", String(messages.length > 0));
  }

  #typed() {
    this.state.textContent = "";
    this.#tell(this.faults());
    this.#buttons();
  }

  #revert() {
    this.write(this.#stored);
    this.state.textContent = "";
    this.#tell([]);
    this.#buttons();
  }

  async #apply() {
    const text = this.text();
    try {
      await this.send(text);
      this.#stored = text;
      this.#tell([]);
      this.#buttons();
      this.state.textContent = "Taken; the next launch sees it.";
    } catch (error) {
      this.#tell(error.errors?.length > 0 ? error.errors : [error.message]);
    }
  }
}

/** A document as JSON text; `shape` is "object" or "list". */
export class TextEditor extends Editor {
  constructor(title, note, shape, pick, send) {
    const field = h("textarea", {
      class: "code", rows: 12, spellcheck: "false", autocomplete: "off", "aria-label": title,
    });
    super(title, note, [field], send);
    this.shape = shape;
    this.pick = pick;
  }

  form() {
    return this.fields[0];
  }

  read(service) {
    return stringify(this.pick(service), 2);
  }

  text() {
    return this.fields[0].value;
  }

  write(text) {
    this.fields[0].value = text;
  }

  faults() {
    try {
      const value = JSON.parse(this.text());
      const shape = Array.isArray(value) ? "list" : value === null ? "null" : typeof value;
      return shape === this.shape ? [] : [`This must be ${this.shape === "list" ? "a list" : "an object"}.`];
    } catch (error) {
      return [`Not JSON: ${error.message}`];
    }
  }
}

const LISTS = {
  action: "Kept as client events",
  agg: "Only counted",
  stop: "Ignored",
};

/** The lists that classify host events by name, a name a line. */
export class ListsEditor extends Editor {
  constructor(send) {
    const fields = Object.entries(LISTS).map(([list, label]) =>
      h("textarea", { rows: 7, spellcheck: "false", autocomplete: "off", "aria-label": label, "data-list": list }));
    super("Classification lists", "Names of host events, one a line.", fields, send);
  }

  form() {
    return h("div", { class: "lists" }, this.fields.map((field) =>
      h("label", { class: "field" }, h("span", {}, field.getAttribute("aria-label")), field)));
  }

  read(service) {
    return stringify(Object.fromEntries(Object.keys(LISTS).map((list) => [list, service.client_events[list] ?? []])));
  }

  text() {
    const names = (field) => field.value.split("\n").map((name) => name.trim()).filter(Boolean);
    return stringify(Object.fromEntries(this.fields.map((field) => [field.dataset.list, names(field)])));
  }

  write(text) {
    const lists = JSON.parse(text);
    for (const field of this.fields) field.value = lists[field.dataset.list].join("\n");
  }

  faults() {
    const homes = new Map();
    const faults = [];
    for (const [list, names] of Object.entries(JSON.parse(this.text()))) {
      for (const name of names) {
        if (homes.has(name)) faults.push(`“${name}” stands twice: ${LISTS[homes.get(name)]}, ${LISTS[list]}.`);
        homes.set(name, list);
      }
    }
    return faults;
  }
}
