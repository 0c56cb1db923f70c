import { ask, el, eventTable, here, link, note, number, show } from "./dom.js";
import { filterForm, filtersOf } from "./filters.js";

const EXPORTED = "as many as this server exports at a time; the last line says whether there are more";

export async function page() {
  const given = here();
  const form = await filterForm("/search");
  let found;
  try {
    found = await ask("events", given);
  } catch (error) {
    if (error.status !== 400) throw error;
    show("Search", el("h1", null, "Search"), form, note(error.message, true));
    return;
  }
  const filters = filtersOf(given);
  const isEnd = found.next === null;
  const older = link("/search", { ...given, before: found.next });
  show("Search", el("h1", null, "Search"), form,
    el("div", { class: "row" },
      el("span", { class: "quiet", role: "status" }, `${number(found.events.length)} events${given.before ? " from here on" : ""}, ${"log" in given ? "newest" : "latest arrivals"} first`),
      el("span", { class: "right row" },
        el("a", { href: link("/timeline", filters) }, "timeline"), el("a", { href: link("/live", filters) }, "live"),
        el("a", { href: link("/api/v1/export", { ...filters, form: "jsonl" }), title: EXPORTED }, "JSON lines"),
        el("a", { href: link("/api/v1/export", { ...filters, form: "csv" }), title: EXPORTED }, "CSV"))),
    found.events.length > 0 && eventTable(found.events, true),
    found.events.length === 0 && isEnd && note("No event is like that."),
    found.cut && note("Time was up before everything was looked at. The next page goes on from there."),
    el("div", { class: "row" },
      !isEnd && el("a", { id: "next", class: "button", href: older, rel: "next" }, found.cut ? "Look further back" : "Older events"),
      given.before && el("a", { class: "button", href: link("/search", filters) }, "Newest events")));
}
