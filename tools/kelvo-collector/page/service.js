// Switches that make the running service misbehave, and the editors of its documents.

import { get, put, remove } from "./api.js";
import { byId, coalesced, h } from "./dom.js";
import { ListsEditor, TextEditor } from "./editors.js";
import { plural, stringify } from "./format.js";

const PATHS = {
  "/chunks": "uploads of events",
  "/enabled-status": "the on/off switch, read at launch",
  "/config/": "the configuration",
  "/v2/api/user": "user attributes",
  "/client-events": "the classification lists",
  "/validate": "the checks for new lists and actions",
  "/rta": "real-time actions",
  "/surveys": "survey actions",
};

const PRESETS = [
  { label: "Refuse uploads (503)", path: "/chunks", status: 503 },
  { label: "Hang on uploads", path: "/chunks", mode: "hang" },
  { label: "Drop uploads", path: "/chunks", mode: "drop" },
  { label: "Answer all 2 s late", path: "/v2/", delay_ms: 2000 },
  { label: "Refuse all (500)", path: "/v2/", status: 500 },
];

const sameAs = (preset, answer) =>
  answer.path === preset.path && answer.times === null && answer.mode === (preset.mode ?? "answer") &&
  (preset.status === undefined || answer.status === preset.status) && answer.delay_ms === (preset.delay_ms ?? 0);

const MODES = { answer: "Answer", hang: "Hang", drop: "Drop the connection" };

function describe(answer) {
  const late = answer.delay_ms > 0 ? ` after ${answer.delay_ms} ms` : "";
  const modes = { hang: "hangs", drop: `drops the connection${late}` };
  const effect = modes[answer.mode] ?? `answers ${answer.status ?? "as usual"}${late}`;
  return `${effect}${answer.times === null ? ", until switched off" : `, ${plural(answer.times, "more time")}`}`;
}

export class ServiceView {
  #shownAnswers = null; // as JSON

  /** Calls `onChange(service)` with each state of the service that it loads. */
  constructor(onChange, onError) {
    this.onChange = onChange;
    this.onError = onError;
    this.refresh = coalesced(() => this.#load(), onError, 200);
    this.enabled = h("button", {
      type: "button", role: "switch", class: "switch", id: "enabled", "aria-checked": "true",
      "aria-describedby": "enabled-note",
    }, h("span", { class: "knob", "aria-hidden": "true" }), "Collection enabled");
    this.enabled.addEventListener("click", () => {
      const on = this.enabled.getAttribute("aria-checked") !== "true";
      this.#act(() => put("/debug/enabled", {}, JSON.stringify({ enabled: on })));
    });
    this.active = h("ul", { class: "answers", id: "answers" });
    this.active.dataset.empty = "The service answers as usual.";
    const reset = () => this.#act(() => remove("/debug/answer"));
    this.allNormal = h("button", { type: "button", id: "all-normal", click: reset }, "All normal again");
    this.configuration = new TextEditor(
      "Configuration", "An application fetches it when its hash has changed, and uses it from the launch after that.",
      "object", (service) => service.config, (text) => put("/debug/config", {}, text));
    this.lists = new ListsEditor((text) => put("/debug/client-events", {}, text));
    this.actions = ["rta", "survey"].map((type) => new TextEditor(
      type === "rta" ? "Real-time actions" : "Survey actions",
      'A list of {"pid", "mid", "config"}; the plug-in of each gets the configuration.', "list",
      (service) => service.actions[type] ?? [], (text) => put(`/debug/actions/${type}`, {}, text)));
    this.editors = [this.configuration, this.lists, ...this.actions];
    byId("service").append(
      h("section", { class: "card slim" }, h("h2", {}, "Collection"), this.enabled,
        h("p", { class: "muted", id: "enabled-note" },
          "When off, an application that asks at its launch collects nothing and ends the library."),
        h("p", { class: "muted" }, "Hash of the configuration ", this.hash = h("code", {}))),
      h("section", { class: "card broad" },
        h("h2", {}, "Misbehave"), this.#presets(), this.#form(), this.active, this.allNormal),
      ...this.editors.map((editor) => editor.element));
  }

  async #act(work) {
    try {
      await work();
      this.onError(null);
    } catch (error) {
      this.onError(error);
    }
    this.refresh();
  }

  #set({ path, status, delay_ms, mode, times }) {
    return this.#act(() => put("/debug/answer", { path, status, delay_ms, mode, times }));
  }

  #presets() {
    this.presets = PRESETS.map((preset) => {
      const button = h("button", { type: "button", class: "preset", "aria-pressed": "false" }, preset.label);
      const isOn = () => button.getAttribute("aria-pressed") === "true";
      button.addEventListener("click", () => this.#set(isOn() ? { path: preset.path } : preset));
      return button;
    });
    return h("div", { class: "presets" }, this.presets);
  }

  #form() {
    const choices = (of) => Object.entries(of).map(([value, label]) => h("option", { value }, label));
    const paths = h("datalist", { id: "paths" }, choices(PATHS));
    const path = h("input", {
      id: "answer-path", list: "paths", value: "/chunks", required: true, spellcheck: "false", autocomplete: "off",
    });
    const mode = h("select", { id: "answer-mode" }, choices(MODES));
    const status = h("input", { id: "answer-status", type: "number", min: 200, max: 599, value: 503, required: true });
    const delay = h("input", { id: "answer-delay", type: "number", min: 0, max: 600000, value: 0, required: true });
    const times = h("input", { id: "answer-times", type: "number", min: 1, placeholder: "all" });
    const fit = () => {
      status.disabled = mode.value !== "answer";
      delay.disabled = mode.value === "hang";
    };
    mode.addEventListener("change", fit);
    const field = (label, input, unit = null) => h("label", { class: "field" }, h("span", {}, label), input, unit);
    return h("form", {
      id: "answer-form",
      submit: (event) => {
        event.preventDefault();
        this.#set({
          path: path.value, mode: mode.value, times: times.value,
          status: status.disabled ? "" : status.value,
          delay_ms: delay.disabled || delay.value === "0" ? "" : delay.value,
        });
      },
    }, paths, field("Paths with", path), field("Do", mode), field("Status", status), field("Delay, ms", delay),
    field("For requests", times), h("button", { type: "submit", class: "primary" }, "Switch on"));
  }

  async #load() {
    const service = await get("/debug/service");
    this.enabled.setAttribute("aria-checked", String(service.enabled));
    this.hash.textContent = service.config_hash;
    const answers = stringify(service.answers);
    if (this.#shownAnswers !== answers) {
      this.#shownAnswers = answers;
      this.presets.forEach((button, i) =>
        button.setAttribute("aria-pressed", String(service.answers.some((answer) => sameAs(PRESETS[i], answer)))));
      this.active.replaceChildren(...service.answers.map((answer) => h("li", {},
        h("code", {}, answer.path), h("span", {}, describe(answer)),
        h("button", { type: "button", click: () => this.#act(() => put("/debug/answer", { path: answer.path })),
          "aria-label": `Switch off the answer for ${answer.path}` }, "Switch off"))));
    }
    this.allNormal.hidden = service.answers.length === 0;
    for (const editor of this.editors) editor.show(service);
    this.onChange(service);
  }
}
