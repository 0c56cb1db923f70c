import { ask, el, eventTable, here, link, note, plural, show, time } from "./dom.js";
import { filterForm, filtersOf, spans } from "./filters.js";

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
  const fixed = { since: found.since, until: found.until ?? found.now };
  const period = found.since === null && found.until === null ? "" : `, of ${found.since === null ? "any time" : time(found.since)} to ${found.until === null ? "now" : time(found.until)}`;
  const older = link("/search", { ...given, before: found.next });
  show("Search", el("h1", null, "Search"), form,
    el("div", { class: "row" },
      el("span", { class: "quiet", role: "status" }, `${plural(found.events.length, "event")}${given.before ? " from here on" : ""}, ${"log" in given ? "newest" : "latest arrivals"} first${period}`),
      spans("/search", given),
      el("span", { class: "right row" },
        el("a", { href: link("/search", { ...filters, ...fixed }), title: "an address that shows the same tomorrow: with the times that this one meant" }, "permanent link"),
        el("a", { href: link("/timeline", filters) }, "timeline"), el("a", { href: link("/live", filters) }, "live"),
        el("a", { href: link("/api/v1/export", { ...filters, form: "jsonl" }), title: EXPORTED }, "JSON lines"),
        el("a", { href: link("/api/v1/export", { ...filters, form: "csv" }), title: EXPORTED }, "CSV"))),
    found.events.length > 0 && eventTable(found.events, true),
    found.events.length === 0 && isEnd && el("p", { class: "note" }, "No event is like that", Object.keys(filters).length > 0 && [". ", el("a", { href: "/search" }, "Show all events")]),
    found.cut && note("Time was up before everything was looked at. The next page goes on from there."),
    el("div", { class: "row" },
      !isEnd && el("a", { id: "next", class: "button", href: older, rel: "next" }, found.cut ? "Look further back" : "Older events"),
      given.before && el("a", { class: "button", href: link("/search", filters) }, "Newest events")));
}
