// The editors of the service's documents. A change from elsewhere never overwrites text that the user is editing.

import { h } from "./dom.js";
import { stringify } from "./format.js";

let editors = 0;

/** The common part of both editors: fields, messages, and the buttons that apply or revert the edit. */
class Editor {
  #stored = null; // the service's document, as text
  effect = "Applied. It takes effect at the next launch.";

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
    else if (elsewhere) this.state.textContent = "Changed elsewhere meanwhile; Apply replaces that change.";
    this.#buttons();
  }

  /** Replaces the text as if the user had typed it. */
  propose(text) {
    this.write(text);
    this.#typed();
  }

  #buttons() {
    const same = this.text() === this.#stored;
    this.apply.disabled = same || this.faults().length > 0;
    this.revert.disabled = same;
  }

  #showMessages(messages) {
    this.messages.replaceChildren(...messages.map((message) => h("li", {}, message)));
    for (const field of this.fields) field.setAttribute("aria-invalid", String(messages.length > 0));
  }

  #typed() {
    this.state.textContent = "";
    this.#showMessages(this.faults());
    this.#buttons();
  }

  #revert() {
    this.write(this.#stored);
    this.state.textContent = "";
    this.#showMessages([]);
    this.#buttons();
  }

  async #apply() {
    const text = this.text();
    try {
      await this.send(text);
      this.#stored = text;
      this.#showMessages([]);
      this.#buttons();
      this.state.textContent = this.effect;
    } catch (error) {
      this.#showMessages(error.errors?.length > 0 ? error.errors : [error.message]);
    }
  }
}

/** Edits a document as JSON text. `shape` is "object" or "list". */
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

/** Edits the lists that classify host events by name, one name per line of text. */
export class ListsEditor extends Editor {
  constructor(send) {
    const fields = Object.entries(LISTS).map(([list, label]) =>
      h("textarea", { rows: 7, spellcheck: "false", autocomplete: "off", "aria-label": label, "data-list": list }));
    super("Classification lists", "Names of host events, one per line.", fields, send);
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
    const listsByName = new Map();
    const faults = [];
    for (const [list, names] of Object.entries(JSON.parse(this.text()))) {
      for (const name of names) {
        const other = listsByName.get(name);
        if (other) faults.push(`“${name}” is there twice: ${LISTS[other]}, ${LISTS[list]}.`);
        listsByName.set(name, list);
      }
    }
    return faults;
  }
}
