import { ask, bladeText, el, figures, here, link, note, number, seconds, show, span, time } from "./dom.js";

const REFRESH = 10_000;
const QUIET = 3600; // seconds after which a blade that says nothing is worth a word

/** What the list is sorted by stands in the address, as all that a page shows: "-errors" is from the most on. */
const orderOf = (given) => ({ name: (given.sort ?? "blade").replace(/^-/, ""), isDown: given.sort?.startsWith("-") === true });

/** Columns: heading, what it is sorted by, what it shows. */
const COLUMNS = [
  { name: "blade", key: (log) => bladeText(log.enclosure, log.blade, log.slot) },
  { name: "enclosure", key: (log) => log.enclosure },
  { name: "slot", key: (log) => log.slot, isNumber: true },
  { name: "last seen", key: (log) => (log.seen ? seconds(log.seen) : 0), isNumber: true },
  { name: "behind by", key: (log) => log.lag ?? -1, isNumber: true },
  { name: "errors", key: (log) => log.lately.error, isNumber: true },
  { name: "warnings", key: (log) => log.lately.warning, isNumber: true },
  { name: "events", key: (log) => events(log), isNumber: true },
  { name: "missing ids", key: (log) => log.missing ?? -1, isNumber: true },
  { name: "newest id", key: (log) => log.lastId ?? -1, isNumber: true },
  { name: "generation", key: (log) => log.generation, isNumber: true },
];

const NOT_COUNTED = { error: 0, warning: 0, information: 0, other: 0 };
const events = (log) => log.lately.error + log.lately.warning + log.lately.information + log.lately.other;
/** @param isDull whether there is no need to read it where room is scarce */
const cell = (name, text, isBad = false, isDull = text === "0") => el("td", { class: `number${isBad ? " bad" : ""}${isDull ? " dull" : ""}`, "data-name": name }, text);

/** How long the newest event took to come. A clock that is ahead makes it come before its own time. */
const delay = (lag) => (lag === null ? "" : lag < 0 ? `clock ${span(lag)} ahead` : span(lag));

function row(log, now) {
  const age = log.seen ? now - seconds(log.seen) : null;
  const hour = link("/search", { log: log.log, since: "-1h" });
  const some = (count, type) => (count > 0 ? el("a", { href: `${hour}&type=${type}` }, number(count)) : "0");
  return el("tr", null,
    el("td", { class: "whole blade" }, el("a", { href: link("/blade", { log: log.log }) }, bladeText(log.enclosure, log.blade, log.slot)),
      log.instance > 0 && ` instance ${log.instance}`),
    el("td", { class: "blade" }, log.enclosure), cell("slot", String(log.slot)),
    cell("seen", age === null ? "never" : el("time", { datetime: log.seen, title: time(log.seen) }, `${span(age)} ago`), age > QUIET),
    cell("behind by", delay(log.lag), log.lag > 300 || log.lag < -60),
    cell("errors", some(log.lately.error, "error"), log.lately.error > 0),
    cell("warnings", some(log.lately.warning, "warning")), cell("events", number(events(log))),
    cell("missing ids", log.missing === null ? "not counted" : number(log.missing), log.missing > 0),
    cell("newest id", number(log.lastId)), cell("generation", String(log.generation), false, log.generation <= 1));
}

function head(given, redraw) {
  const order = orderOf(given);
  return el("thead", null, el("tr", null, COLUMNS.map((column) => {
    const isIt = order.name === column.name;
    const isDown = isIt ? !order.isDown : column.isNumber === true;
    return el("th", { scope: "col", class: column.isNumber ? "number" : null, "aria-sort": isIt ? (order.isDown ? "descending" : "ascending") : null },
      el("button", { type: "button", onclick: () => {
        const chosen = { ...given, sort: `${isDown ? "-" : ""}${column.name}` };
        history.replaceState(null, "", link("/", chosen));
        redraw(chosen);
      } }, column.name, isIt && (order.isDown ? " ↓" : " ↑")));
  })));
}

function sorted(logs, given) {
  if (given.order === "worst" && !given.sort) return logs;
  const order = orderOf(given);
  const { key } = COLUMNS.find((column) => column.name === order.name) ?? COLUMNS[0];
  const sign = order.isDown ? -1 : 1;
  return [...logs].sort((left, right) => sign * (key(left) < key(right) ? -1 : key(left) > key(right) ? 1 : 0));
}

const questionOf = ({ find, behind, order }) => ({ find, behind, order });

function totals(list, now, hour) {
  const isAll = list.logs.length === list.known;
  const count = (test) => number(list.logs.filter(test).length);
  const of = isAll ? "" : ", of these";
  const grave = (type) => (list.lately === null ? "not counted" : el("a", { href: link("/search", { type, since: "-1h" }) }, number(list.lately[type])));
  return figures([[isAll ? "logs" : "logs shown", `${number(list.logs.length)}${isAll || list.known === null ? "" : ` of ${number(list.known)}`}`],
    [`errors ${hour}`, grave("error")], [`warnings ${hour}`, grave("warning")],
    [`quiet for an hour${of}`, count((log) => !log.seen || now - seconds(log.seen) > QUIET)],
    [`with missing ids${of}`, count((log) => log.missing > 0)]]);
}

/** Logs by name, or those that have something to say. */
function choices(list, given) {
  const way = (text, order) => el("a", { class: "button", href: link("/", { find: given.find, order }),
    "aria-current": (given.order ?? null) === order ? "true" : null }, text);
  return el("form", { class: "row", role: "search" }, el("label", { for: "find" }, "name holds"),
    el("span", null, el("input", { id: "find", name: "find", type: "search", value: given.find, autocomplete: "off" })),
    given.order && el("input", { type: "hidden", name: "order", value: given.order }), el("button", null, "Show"),
    el("span", { class: "right row" }, way("All by name", null), way("Worst first", "worst")));
}

function nothing(list, given) {
  if (list.known === 0) return note("No blade has sent anything yet: this archive is empty.");
  if (given.find) return el("p", { class: "note" }, `No log's name holds “${given.find}”${given.order === "worst" ? ", or it has no errors and warnings now" : ""}. `, el("a", { href: "/" }, "Show all"));
  return note("No log has had errors or warnings lately.");
}

function draw(list, given) {
  const now = seconds(list.now);
  for (const log of list.logs) log.lately ??= NOT_COUNTED;
  const hour = list.windowSeconds === 0 ? "lately (not counted in time)" : list.windowSeconds === 3600 ? "in the last hour" : `in the last ${span(list.windowSeconds)}`;
  const focused = document.activeElement?.closest("th") ? document.activeElement.textContent.replace(/ [↓↑]$/, "") : null;
  const redraw = (chosen) => draw(list, chosen);
  const table = el("table", { class: "fleet" }, el("caption", null, `Errors, warnings and events: those that came ${hour}. Behind by: how long the newest event took to come here. Missing ids: those between others that the archive does not hold.`),
    head(given, redraw), el("tbody", null, sorted(list.logs, given).map((log) => row(log, now))));
  show("Fleet", el("h1", null, "Fleet"), totals(list, now, hour), choices(list, given), list.logs.length > 0 ? table : nothing(list, given),
    el("div", { class: "row" }, list.next !== null && el("a", { id: "next", class: "button", rel: "next", href: link("/", { ...given, behind: list.next }) }, "More logs"),
      given.behind && el("a", { class: "button", href: link("/", { find: given.find }) }, "First logs")));
  if (focused) [...document.querySelectorAll("th button")].find((button) => button.textContent.startsWith(focused))?.focus();
}

export async function page() {
  const asked = questionOf(here());
  draw(await ask("logs", asked), here());
  setInterval(async () => {
    // What somebody reads or writes just now is left alone.
    if (document.hidden || document.activeElement?.closest("main input, main a, th")) return;
    const list = await ask("logs", asked).catch(() => null);
    if (list) draw(list, here());
    else document.getElementById("archive").replaceChildren("the archive does not answer; tried again");
  }, REFRESH);
}
