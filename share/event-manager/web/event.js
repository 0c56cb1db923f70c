import { ask, bladeText, el, eventTable, facts, here, kind, link, number, seconds, show, span, time } from "./dom.js";

const LONG = 200; // letters that the heading shows for sure

export async function page() {
  const given = here();
  const event = await ask("event", given);
  const near = await ask("around", { log: event.log, generation: event.generation, id: event.sequenceId, reach: 10 });
  const blade = bladeText(event.enclosureId, event.bladeId, event.slotId);
  const fields = Object.entries(event.fields ?? {}).map(([name, field]) => [name, field.shown]);
  const isLong = (event.text ?? "").length > LONG;
  const delay = seconds(event.received) - seconds(event.time);
  const table = eventTable(near.events, false, "What the log holds around it, newest first");
  table.querySelector(`[data-key="${CSS.escape(`${event.log}.${event.generation}.${event.sequenceId}`)}"]`)?.classList.add("here");
  show(`Event ${event.sequenceId} of ${blade}`,
    el("h1", { class: "clamp" }, event.text ?? event.idName ?? `event ${event.id}`),
    el("div", { class: "row" }, kind(event.type, event.typeName), el("span", null, time(event.time)),
      el("a", { href: link("/blade", { log: event.log }) }, blade)),
    event.advice && el("p", { class: "advice" }, event.advice),
    facts([
      ["source", event.sourceName ?? String(event.source)],
      ["event", event.idName ? `${event.idName} (${event.id}), version ${event.idVersion}` : `${event.id}, version ${event.idVersion}`],
      ["category", event.categoryName ?? String(event.category)],
      ["enclosure", event.enclosureId], ["blade", event.bladeId], ["slot", String(event.slotId)],
      ["log", `instance ${event.instanceNumber}, generation ${event.generation}`],
      ["sequence id", number(event.sequenceId)],
      ["received", `${time(event.received)}, ${span(delay)} ${delay < 0 ? "before its own time" : "later"}`],
      ["doubtful", event.doubtful && "nothing has been seen behind it: it may be damaged"],
      ["text", isLong && !fields.some(([, shown]) => shown === event.text) && event.text],
      ...fields,
      ["data", `${number(event.length)} bytes`],
    ].filter(([, value]) => value)),
    event.dump && el("pre", { tabindex: 0, "aria-label": "data" }, event.dump),
    el("p", null, el("a", { href: link("/search", { source: event.sourceName ?? event.source, id: event.id }) }, "all like this"), " · ",
      el("a", { href: link("/search", { log: event.log, source: event.sourceName ?? event.source, id: event.id }) }, "of this log"), " · ",
      el("a", { href: link("/timeline", { since: `@${seconds(event.time) - 1800}`, until: `@${seconds(event.time) + 1800}` }) }, "the hour around it")),
    el("h2", null, "Around it"), table);
}
