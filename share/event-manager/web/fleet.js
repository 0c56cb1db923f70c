import { ask, bladeText, el, figures, here, link, note, number, seconds, show, span, time } from "./dom.js";

const REFRESH = 10_000;
const QUIET = 3600; // seconds after which a blade that says nothing is worth a word
let order = { name: "blade", isDown: false };

/** Columns: heading, what it is sorted by, what it shows. */
const COLUMNS = [
  { name: "blade", key: (log) => bladeText(log.enclosure, log.blade, log.slot) },
  { name: "enclosure", key: (log) => log.enclosure },
  { name: "slot", key: (log) => log.slot, isNumber: true },
  { name: "last seen", key: (log) => (log.seen ? seconds(log.seen) : 0), isNumber: true },
  { name: "lag", key: (log) => log.lag ?? -1, isNumber: true },
  { name: "errors", key: (log) => log.lately.error, isNumber: true },
  { name: "warnings", key: (log) => log.lately.warning, isNumber: true },
  { name: "events", key: (log) => events(log), isNumber: true },
  { name: "missing", key: (log) => log.missing ?? -1, isNumber: true },
  { name: "newest id", key: (log) => log.lastId ?? -1, isNumber: true },
  { name: "generation", key: (log) => log.generation, isNumber: true },
];

const events = (log) => log.lately.error + log.lately.warning + log.lately.information + log.lately.other;
const cell = (name, text, isBad = false) => el("td", { class: isBad ? "number bad" : "number", "data-name": name }, text);

function row(log, now) {
  const age = log.seen ? now - seconds(log.seen) : null;
  const hour = link("/search", { log: log.log, since: "-1h" });
  const some = (count, type) => (count > 0 ? el("a", { href: `${hour}&type=${type}` }, number(count)) : "0");
  return el("tr", null,
    el("td", { class: "whole blade" }, el("a", { href: link("/blade", { log: log.log }) }, bladeText(log.enclosure, log.blade, log.slot)),
      log.instance > 0 && ` instance ${log.instance}`),
    el("td", { class: "blade" }, log.enclosure), cell("slot", String(log.slot)),
    cell("seen", age === null ? "never" : el("time", { datetime: log.seen, title: time(log.seen) }, `${span(age)} ago`), age > QUIET),
    cell("lag", log.lag === null ? "" : el("span", { title: "between the newest event and its arrival" }, span(log.lag)), log.lag > 300),
    cell("errors", some(log.lately.error, "error"), log.lately.error > 0),
    cell("warnings", some(log.lately.warning, "warning")), cell("events", number(events(log))),
    cell("missing", log.missing === null ? "not counted" : number(log.missing), log.missing > 0),
    cell("newest id", number(log.lastId)), cell("generation", String(log.generation)));
}

function head(list, redraw) {
  return el("thead", null, el("tr", null, COLUMNS.map((column) => {
    const isIt = order.name === column.name;
    return el("th", { scope: "col", class: column.isNumber ? "number" : null, "aria-sort": isIt ? (order.isDown ? "descending" : "ascending") : null },
      el("button", { type: "button", onclick: () => {
        order = { name: column.name, isDown: isIt ? !order.isDown : column.isNumber === true };
        redraw();
      } }, column.name, isIt && (order.isDown ? " ↓" : " ↑")));
  })));
}

function sorted(logs) {
  const { key } = COLUMNS.find((column) => column.name === order.name);
  const sign = order.isDown ? -1 : 1;
  return [...logs].sort((left, right) => sign * (key(left) < key(right) ? -1 : key(left) > key(right) ? 1 : 0));
}

function draw(list, given) {
  const now = seconds(list.now);
  const total = (of) => list.logs.reduce((sum, log) => sum + (of(log) ?? 0), 0);
  const hour = list.windowSeconds === 0 ? "lately (not counted in time)" : list.windowSeconds === 3600 ? "in the last hour" : `in the last ${span(list.windowSeconds)}`;
  const focused = document.activeElement?.textContent;
  const isNumber = document.activeElement?.closest("th") !== null;
  const table = el("table", { class: "fleet" }, el("caption", null, `Errors, warnings and events: those that came ${hour}. Lag: of the newest event on its way here. Missing: ids between others.`),
    head(list, () => draw(list, given)), el("tbody", null, sorted(list.logs).map((log) => row(log, now))));
  const form = el("form", { class: "row", role: "search" }, el("label", { for: "find" }, "name holds"),
    el("span", null, el("input", { id: "find", name: "find", type: "search", value: given.find, autocomplete: "off" })), el("button", null, "Show"));
  show("Fleet", el("h1", null, "Fleet"),
    figures([["logs", `${number(list.logs.length)}${list.logs.length < list.known ? ` of ${number(list.known)}` : ""}`],
      ["quiet for an hour", number(list.logs.filter((log) => !log.seen || now - seconds(log.seen) > QUIET).length)],
      [`events ${hour}`, number(total(events))], [`errors ${hour}`, number(total((log) => log.lately.error))],
      ["logs with missing ids", number(list.logs.filter((log) => log.missing > 0).length)]]),
    form, list.logs.length > 0 ? table : note("No blade is called so, or none has sent anything yet."),
    el("div", { class: "row" }, list.next !== null && el("a", { id: "next", class: "button", rel: "next", href: link("/", { ...given, behind: list.next }) }, "More logs"),
      given.behind && el("a", { class: "button", href: link("/", { find: given.find }) }, "First logs")));
  if (isNumber) [...document.querySelectorAll("th button")].find((button) => button.textContent.split(" ↓")[0].split(" ↑")[0] === focused?.split(" ↓")[0].split(" ↑")[0])?.focus();
}

export async function page() {
  const given = here();
  draw(await ask("logs", given), given);
  setInterval(async () => {
    // What somebody reads or writes just now is left alone.
    if (document.hidden || document.activeElement?.closest("main input, tbody, th")) return;
    draw(await ask("logs", given).catch(() => null) ?? await ask("logs", given), given);
  }, REFRESH);
}
