import { ask, bladeText, el, eventTable, figures, here, link, note, number, plural, seconds, show, span, svg, time } from "./dom.js";
import { at, chartOf, notes } from "./timeline.js";

const CRASH = { source: "eventlog", id: 11 };
const DAY = 86_400;

const gap = (first, last, ring) => ({ first, last, isInRing: ring !== null && first >= ring });

/** What is missing between the ids that are held, and what the blade's own log had before them. */
function gapsOf(generation, ring) {
  const gaps = [];
  for (let index = 1; index < generation.runs.length; index++) {
    const [first, last] = [generation.runs[index - 1][1] + 1, generation.runs[index][0] - 1];
    const isSplit = ring !== null && first < ring && ring <= last;
    gaps.push(gap(first, isSplit ? ring - 1 : last, ring));
    if (isSplit) gaps.push(gap(ring, last, ring));
  }
  const first = generation.runs[0]?.[0];
  if (ring !== null && ring < first) gaps.unshift(gap(ring, first - 1, ring));
  return gaps;
}

/** The ids of a generation as a strip. A gap that would be too thin to be seen is made wide enough. */
function strip(generation, gaps) {
  const first = Math.min(generation.runs[0][0], gaps[0]?.first ?? Infinity);
  const last = generation.runs.at(-1)[1];
  const whole = Math.max(1, last - first + 1);
  const at = (id) => (1000 * (id - first)) / whole;
  const rect = (name, from, to, least, y, height) => svg("rect", { class: name, x: at(from), width: Math.max(least, at(to + 1) - at(from)), y, height });
  return svg("svg", { class: "strip", viewBox: "0 0 1000 10", preserveAspectRatio: "none", role: "img", "aria-label": `ids ${first} to ${last}, ${plural(gaps.length, "gap")}` },
    generation.runs.map(([from, to]) => rect("held", from, to, 1, 0, 10)),
    gaps.map((one) => (one.isInRing ? rect("ring", one.first, one.last, 3, 6, 4) : rect("gap", one.first, one.last, 3, 3, 4))));
}

function gapLine(one, log, generation) {
  const ids = one.first === one.last ? `id ${number(one.first)}` : `ids ${number(one.first)} to ${number(one.last)}`;
  return el("li", null, el("a", { href: link("/search", { log, generation, seq: `${Math.max(0, one.first - 10)}:${one.last + 10}` }) }, ids),
    one.isInRing ? ": only the blade's own log had them when it last connected" : one.first === one.last ? " is missing" : " are missing");
}

function generationPart(generation, log, isNewest) {
  const gaps = gapsOf(generation, isNewest ? log.ringFirst : null);
  const hasRuns = generation.runs.length > 0;
  return [
    el("h3", null, `Generation ${generation.generation}${isNewest ? "" : ", superseded"}`),
    hasRuns && strip(generation, gaps),
    el("p", { class: "quiet" }, `${plural(generation.events, "event")}${generation.cut ? " or more" : ""}`,
      hasRuns && `, ids ${number(generation.runs[0][0])} to ${number(generation.runs.at(-1)[1])}`,
      `, ${plural(gaps.length, "gap")}, ${plural(generation.duplicates, "duplicate")} dropped`, generation.opened && `; opened ${time(generation.opened)}`,
      generation.firstTime && `; events of ${time(generation.firstTime)} to ${time(generation.lastTime)}`,
      isNewest && log.ringFirst !== null && hasRuns && log.ringFirst <= generation.runs.at(-1)[1] && `; the blade's own log began with id ${number(log.ringFirst)} when it last connected`),
    gaps.length > 0 && el("details", { open: gaps.length <= 3 }, el("summary", null, plural(gaps.length, "gap")),
      el("ul", null, gaps.slice(0, 100).map((one) => gapLine(one, log.log, generation.generation)), gaps.length > 100 && el("li", null, `and ${plural(gaps.length - 100, "further one")}`))),
  ];
}

/** The day before a log's newest event, or before now if its clock runs ahead. */
async function lastDay(log, now) {
  const end = Math.min(seconds(log.lastTime), now);
  const found = await ask("timeline", { log: log.log, since: at(end - DAY + 1), until: at(end), buckets: 96 });
  return [el("h2", null, "The last 24 hours it tells of", el("small", null, `to ${time(log.lastTime)}`)),
    chartOf(found, (from, to) => link("/search", { log: log.log, since: at(from), until: at(to) })), notes(found)];
}

const list = (title, events, more, href) => [el("h2", null, title),
  events.length > 0 ? eventTable(events, false) : el("p", { class: "quiet" }, "none"),
  el("div", { class: "row" }, more && el("a", { class: "button", ...href }, "Older ones"))];

async function crashPart(log, crashes) {
  const [newest] = crashes.events;
  if (!newest) return null;
  const around = await ask("around", { log: log.log, generation: newest.generation, id: newest.sequenceId, reach: 8 });
  const table = eventTable(around.events, false);
  table.querySelector(`[data-key="${log.log}.${newest.generation}.${newest.sequenceId}"]`)?.classList.add("here");
  return [el("h2", null, "Crashes"), eventTable(crashes.events, false),
    el("details", { open: true }, el("summary", null, "what the log holds around the newest one"), table)];
}

export async function page() {
  const log = await ask("log", { log: here().log });
  const now = seconds(log.now);
  const [recent, grave, crashes] = await Promise.all([{ limit: 25 }, { type: "error,warning", limit: 15 }, { ...CRASH, limit: 5 }]
    .map((filters) => ask("events", { log: log.log, ...filters })));
  const [day, crash] = await Promise.all([log.lastTime && lastDay(log, now), crashPart(log, crashes)]);
  const name = bladeText(log.enclosure, log.blade, log.slot);
  const graveFilters = { log: log.log, type: "error,warning" };
  show(name, el("h1", null, name, el("small", null, `enclosure ${log.enclosure}, slot ${log.slot}, instance ${log.instance} of its log`)),
    figures([["last seen", log.seen ? `${span(now - seconds(log.seen))} ago` : "never"],
      ["behind by", log.lag === null ? "" : log.lag < 0 ? `its clock is ${span(log.lag)} ahead` : span(log.lag)],
      ["newest id", number(log.lastId)], ["missing ids", log.missing === null ? "not counted" : number(log.missing)],
      ["generations", number(log.generations.length)], ["crashes", `${number(crashes.events.length)}${crashes.next ? " or more" : ""}`]]),
    el("div", { class: "row" }, el("a", { class: "button", href: link("/search", { log: log.log }) }, "Search in it"),
      el("a", { class: "button", href: link("/timeline", { log: log.log }) }, "Timeline"), el("a", { class: "button", href: link("/live", { log: log.log }) }, "Live")),
    log.generations.length === 0 && note("It has said who it is, and has sent no event yet."),
    crash, day,
    list("Warnings and errors", grave.events, grave.next, { href: link("/search", { ...graveFilters, before: grave.next }) }),
    el("h2", null, "What the archive holds of it"), log.generations.map((generation, index) => generationPart(generation, log, index === 0)),
    list("All events", recent.events, recent.next, { id: "next", rel: "next", href: link("/search", { log: log.log, before: recent.next }) }));
}
