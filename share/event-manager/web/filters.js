// The form of a search. Its fields are the parameters of the address, which are the filters of all readers.
import { ask, el, here, link } from "./dom.js";

export const FILTERS = ["type", "source", "category", "id", "seq", "since", "until", "enclosure", "blade", "slot", "instance",
  "text", "log", "generation"];

export const filtersOf = (given) => Object.fromEntries(FILTERS.filter((name) => name in given).map((name) => [name, given[name]]));

const names = ask("names");

const field = (name, label, given, attributes = {}, isWide = false) => el("p", { class: isWide ? "wide" : null },
  el("label", { for: name }, label),
  el("input", { id: name, name, value: given[name], autocomplete: "off", ...attributes }));

function choice(name, label, rows, given) {
  return el("p", null, el("label", { for: name }, label), el("select", { id: name, name },
    el("option", { value: "" }, "any"),
    rows.map((row) => el("option", { value: row.name, selected: given[name] === row.name || given[name] === String(row.value) }, row.name)),
    given[name] && !rows.some((row) => row.name === given[name] || String(row.value) === given[name]) &&
      el("option", { value: given[name], selected: true }, given[name])));
}

function types(rows, given) {
  const chosen = (given.type ?? "").split(",");
  return el("fieldset", { class: "wide" }, el("legend", null, "type"), el("span", null, rows.map((row) => el("label", null,
    el("input", { type: "checkbox", value: row.name, "data-type": true, checked: chosen.includes(row.name) }), row.name))));
}

let asked = "";

/** Names of blades that hold what was typed so far. */
async function propose({ target }) {
  asked = target.value;
  const found = await ask("logs", { find: asked, limit: 20 }).catch(() => null);
  if (found === null || asked !== target.value) return;
  const names = new Set(found.logs.map((log) => log.blade));
  document.getElementById("blades").replaceChildren(...[...names].map((name) => el("option", { value: name })));
}

const SPANS = [["last hour", "-1h"], ["6 h", "-6h"], ["24 h", "-1d"], ["7 d", "-1w"], ["any time", null]];

/** Ways to a time, for who does not want to write one. */
export const spans = (path, given) => el("span", { class: "row" }, SPANS.map(([name, since]) =>
  el("a", { href: link(path, { ...filtersOf(given), since, until: null }), "aria-current": (given.since ?? null) === since && !given.until ? "true" : null }, name)));

/** @param path where the form leads @param extra further fields */
export async function filterForm(path, ...extra) {
  const given = here();
  const known = await names;
  const rare = ["category", "seq", "enclosure", "slot", "instance", "generation", "log"];
  const form = el("form", { action: path, role: "search", "aria-label": "Filters" },
    el("div", { class: "fields" },
      field("text", "text holds", given, { type: "search" }, true),
      types(known.types, given),
      choice("source", "source", known.sources, given),
      field("id", "event id", given, { list: "events", placeholder: "number" }),
      field("blade", "blade (whole name)", given, { list: "blades", oninput: propose }),
      field("since", "since (UTC)", given, { placeholder: "-2h, yesterday, 14:00, 2026-11-21" }, true),
      field("until", "until (UTC)", given, { placeholder: "now" }),
      extra),
    el("datalist", { id: "blades" }), el("datalist", { id: "events" }, known.events.map((event) => el("option", { value: event.id }, `${event.source}: ${event.name}`))),
    el("details", { open: rare.some((name) => name in given) }, el("summary", null, "more filters"),
      el("div", { class: "fields" },
        choice("category", "category", known.categories, given),
        field("seq", "sequence ids", given, { placeholder: "first:last" }),
        field("enclosure", "enclosure", given), field("slot", "slot", given, { inputmode: "numeric" }),
        field("instance", "instance of the log", given, { inputmode: "numeric" }),
        field("log", "log", given), field("generation", "generation", given, { inputmode: "numeric" }))),
    el("div", { class: "row" }, el("button", { class: "main" }, "Show"), el("a", { class: "button", href: path }, "Clear")));
  form.addEventListener("submit", (submitted) => {
    submitted.preventDefault();
    const wanted = Object.fromEntries(new FormData(form));
    wanted.type = [...form.querySelectorAll("[data-type]:checked")].map((box) => box.value);
    location.assign(link(path, wanted));
  });
  return form;
}
