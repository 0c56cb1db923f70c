import { ask, bladeText, el, eventTable, facts, figures, here, link, note, number, seconds, show, span, svg, time } from "./dom.js";

const CRASH = { source: "eventlog", id: 11 };

/** The ids of a generation as a strip. A gap that would be too thin to be seen is made wide enough. */
function strip(generation) {
  const first = generation.runs[0][0];
  const last = generation.runs.at(-1)[1];
  const whole = Math.max(1, last - first + 1);
  const at = (id) => (1000 * (id - first)) / whole;
  const parts = generation.runs.map(([from, to]) => svg("rect", { class: "held", x: at(from), width: Math.max(1, at(to + 1) - at(from)), y: 0, height: 10 }));
  for (let index = 1; index < generation.runs.length; index++) {
    const from = generation.runs[index - 1][1] + 1;
    parts.push(svg("rect", { class: "gap", x: at(from), width: Math.max(3, at(generation.runs[index][0]) - at(from)), y: 3, height: 4 }));
  }
  return svg("svg", { class: "strip", viewBox: "0 0 1000 10", preserveAspectRatio: "none", role: "img",
    "aria-label": `ids ${first} to ${last}, ${generation.runs.length - 1} gaps` }, parts);
}

function gapsOf(generation) {
  const gaps = [];
  for (let index = 1; index < generation.runs.length; index++) {
    gaps.push([generation.runs[index - 1][1] + 1, generation.runs[index][0] - 1]);
  }
  return gaps;
}

function generationPart(generation, log, isNewest) {
  const gaps = gapsOf(generation);
  return [
    el("h2", null, `Generation ${generation.generation}${isNewest ? "" : ", superseded"}`),
    generation.runs.length > 0 && strip(generation),
    el("p", { class: "quiet" }, `${number(generation.events)} events${generation.cut ? " or more" : ""}`,
      generation.runs.length > 0 && `, ids ${number(generation.runs[0][0])} to ${number(generation.runs.at(-1)[1])}`,
      `, ${number(gaps.length)} gaps, ${number(generation.duplicates)} duplicates dropped; opened ${time(generation.opened)}`,
      generation.firstTime && `; events of ${time(generation.firstTime)} to ${time(generation.lastTime)}`),
    gaps.length > 0 && el("details", { open: gaps.length <= 3 }, el("summary", null, `${number(gaps.length)} gaps`),
      el("ul", null, gaps.slice(0, 100).map(([first, last]) => el("li", null, "ids ",
        el("a", { href: link("/search", { log, generation: generation.generation, seq: `${Math.max(0, first - 10)}:${last + 10}` }) },
          first === last ? number(first) : `${number(first)} to ${number(last)}`), " are missing")))),
  ];
}

export async function page() {
  const given = here();
  const log = await ask("log", { log: given.log });
  const [recent, crashes] = await Promise.all([ask("events", { log: log.log, limit: 25, before: given.before }), ask("events", { log: log.log, ...CRASH, limit: 5 })]);
  const around = crashes.events.length > 0
    ? await ask("around", { log: log.log, generation: crashes.events[0].generation, id: crashes.events[0].sequenceId, reach: 8 }) : null;
  const name = bladeText(log.enclosure, log.blade, log.slot);
  const now = seconds(log.now);
  show(name, el("h1", null, name, el("small", null, `enclosure ${log.enclosure}, slot ${log.slot}, instance ${log.instance} of its log`)),
    figures([["last seen", log.seen ? `${span(now - seconds(log.seen))} ago` : "never"], ["lag", log.lag === null ? "" : span(log.lag)],
      ["newest id", number(log.lastId)], ["missing ids", log.missing === null ? "not counted" : number(log.missing)],
      ["generations", number(log.generations.length)], ["crashes", `${number(crashes.events.length)}${crashes.next ? " or more" : ""}`]]),
    el("div", { class: "row" }, el("a", { class: "button", href: link("/search", { log: log.log }) }, "Search in it"),
      el("a", { class: "button", href: link("/timeline", { log: log.log }) }, "Timeline"), el("a", { class: "button", href: link("/live", { log: log.log }) }, "Live")),
    log.generations.length === 0 && note("It has said who it is, and has sent no event yet."),
    crashes.events.length > 0 && [el("h2", null, "Crashes"), eventTable(crashes.events, false),
      el("details", { open: true }, el("summary", null, "what the log holds around the newest one"), eventTable(around.events, false))],
    log.generations.map((generation, index) => generationPart(generation, log.log, index === 0)),
    el("h2", null, "Events"), eventTable(recent.events, false),
    el("div", { class: "row" }, recent.next && el("a", { id: "next", class: "button", rel: "next", href: link("/search", { log: log.log, before: recent.next }) }, "Older events")));
}
