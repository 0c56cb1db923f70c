import { ask, el, here, iso, link, note, number, seconds, show, svg, time } from "./dom.js";
import { filterForm, filtersOf } from "./filters.js";

const LANES = [["errors", "error", 0], ["warnings", "warning", 1], ["information", "", 2], ["other types", "", 3]];
const SPANS = [["1 h", 3600], ["6 h", 21_600], ["1 d", 86_400], ["7 d", 604_800], ["30 d", 2_592_000], ["1 y", 31_536_000]];
const BUCKETS = 120;
const DAY = 86_400;

export const at = (value) => `@${Math.max(0, Math.min(4_294_967_295, Math.round(value)))}`;
const TICKS = [1, 5, 15, 60, 300, 900, 3600, 10_800, 21_600, 43_200, DAY, 2 * DAY, 7 * DAY, 30 * DAY, 365 * DAY, 3650 * DAY];

/** "14:05", "14:05:10", "11-22", "11-22 14:05": as much of a time as neighbours at this distance need. */
function shortTime(value, step, isFirst) {
  const text = time(iso(value));
  if (step >= DAY) return step >= 30 * DAY ? text.slice(0, 10) : text.slice(5, 10);
  const clock = text.slice(11, step < 60 ? 19 : 16);
  return isFirst || value % DAY === 0 ? `${text.slice(5, 10)} ${clock}` : clock;
}

/** Round times below the bars, at most seven; none where its text would be cut. */
function axis(found) {
  const whole = found.width * found.buckets.length;
  const step = TICKS.find((size) => whole / size <= 7) ?? TICKS.at(-1);
  const axisOf = el("div", { class: "axis" });
  for (let value = Math.ceil(found.since / step) * step; value < found.since + whole * 0.9; value += step) {
    const tick = el("span", null, shortTime(value, step, axisOf.children.length === 0));
    tick.style.left = `${(100 * (value - found.since)) / whole}%`;
    axisOf.append(tick);
  }
  return axisOf;
}

function lane(counts, width, [name, style, column], columns) {
  const most = Math.max(1, ...counts.map((bucket) => bucket[column]));
  const isTall = column === 2;
  const bars = counts.map((bucket, index) => bucket[column] > 0 && svg("rect", { class: `bar ${style}`, x: index + 0.06, width: 0.88,
    y: 100 - Math.max(4, (100 * bucket[column]) / most), height: Math.max(4, (100 * bucket[column]) / most) }));
  const total = counts.reduce((sum, bucket) => sum + bucket[column], 0);
  return [el("div", { class: "lane" }, el("b", null, number(total)), name, el("br"), el("span", { class: "quiet" }, total > 0 && `at most ${number(most)}`)),
    el("div", { class: "chart" }, svg("svg", { viewBox: `0 0 ${counts.length} 100`, preserveAspectRatio: "none", class: isTall ? "tall" : "", role: "group",
      "aria-label": `${name}: ${total}` }, bars.filter(Boolean), columns()))];
}

/** What leads into a bucket: the whole height is to be hit. One of them takes part in the order of keys. */
function hits(found, address, isReached) {
  return found.buckets.map((bucket, index) => {
    const from = found.since + index * found.width;
    const [error, warning, information, other] = bucket;
    const text = `${time(iso(from))}: ${number(error)} errors, ${number(warning)} warnings, ${number(information)} information${other ? `, ${number(other)} others` : ""}`;
    return svg("a", { href: address(from, from + found.width - 1), tabindex: isReached && index === 0 ? 0 : -1, "data-index": index, "aria-label": text },
      svg("rect", { class: "hit", x: index, width: 1, y: 0, height: 100 }), svg("title", null, text));
  });
}

function bindKeys(chart) {
  chart.addEventListener("keydown", (event) => {
    const step = { ArrowLeft: -1, ArrowRight: 1, PageUp: -10, PageDown: 10 }[event.key];
    const index = Number(event.target.dataset?.index);
    if (step === undefined || Number.isNaN(index)) return;
    event.preventDefault();
    const anchors = [...event.target.closest("svg").querySelectorAll("a")];
    const next = anchors[Math.max(0, Math.min(anchors.length - 1, index + step))];
    event.target.setAttribute("tabindex", "-1");
    next.setAttribute("tabindex", "0");
    next.focus();
  });
}

/** A stretch that is drawn with a pointer is zoomed into. */
function bindDrag(chart, found, zoom) {
  let start = null;
  let mark = null;
  const bucketAt = (event, view) => Math.max(0, Math.min(found.buckets.length - 1,
    Math.floor(((event.clientX - view.left) / view.width) * found.buckets.length)));
  chart.addEventListener("pointerdown", (event) => {
    const picture = event.target.closest("svg");
    if (picture && event.button === 0) start = { picture, view: picture.getBoundingClientRect(), from: bucketAt(event, picture.getBoundingClientRect()) };
  });
  chart.addEventListener("dragstart", (event) => event.preventDefault());
  chart.addEventListener("pointermove", (event) => {
    if (!start) return;
    const to = bucketAt(event, start.view);
    if (to === start.from && !mark) return;
    mark ??= start.picture.appendChild(svg("rect", { class: "chosen", y: 0, height: 100 }));
    mark.setAttribute("x", Math.min(start.from, to));
    mark.setAttribute("width", Math.abs(to - start.from) + 1);
    start.to = to;
  });
  addEventListener("pointerup", () => {
    if (mark) {
      const first = Math.min(start.from, start.to);
      const last = Math.max(start.from, start.to);
      zoom(found.since + first * found.width, found.since + (last + 1) * found.width - 1);
    }
    start = null;
  });
  chart.addEventListener("click", (event) => mark && event.preventDefault(), true);
}

/** Lanes of bars, one for each type. @param address where a time leads, from its first second to its last */
export function chartOf(found, address) {
  const shown = LANES.filter(([, , column]) => (column < 3 && !(found.onlyWarningsAndErrors && column === 2)) || found.buckets.some((bucket) => bucket[column] > 0));
  const chart = el("div", { class: "lanes" },
    shown.map((one, index) => lane(found.buckets, found.width, one, () => hits(found, address, index === 0))), axis(found));
  bindKeys(chart);
  bindDrag(chart, found, (from, end) => location.assign(address(from, end)));
  return chart;
}

/** What a timeline does not tell. */
export const notes = (found) => [found.cut && note("Time was up: what came earlier is not counted. A shorter time or fewer filters help."),
  found.onlyWarningsAndErrors && note("Only warnings and errors are counted here; choose a shorter time, or a blade, for all.")];

/** The time that is shown when the address does not say: the day before the newest event. */
async function usual(given) {
  if (given.since) return given;
  const status = await ask("status");
  const newest = status.newest ? seconds(status.newest) : seconds(status.now);
  return { ...given, since: at(newest - DAY + 60), until: at(newest + 60) };
}

function table(found) {
  return el("details", null, el("summary", null, "as a table"), el("table", null, el("thead", null, el("tr", null,
    ["from", "errors", "warnings", "information", "other"].map((name, index) => el("th", { scope: "col", class: index ? "number" : null }, name)))),
    el("tbody", null, found.buckets.map((bucket, index) => bucket.some((count) => count > 0) && el("tr", null, el("td", null, time(iso(found.since + index * found.width))),
      bucket.map((count, column) => el("td", { class: "number", "data-name": LANES[column][0] }, number(count))))))));
}

function controls(filters, since, until) {
  const width = until - since + 1;
  const middle = since + width / 2;
  const to = (from, end) => link("/timeline", { ...filters, since: at(from), until: at(end) });
  return el("div", { class: "row" },
    el("a", { class: "button", href: to(since - width / 2, until - width / 2) }, "← earlier"),
    el("a", { class: "button", href: to(since + width / 2, until + width / 2) }, "later →"),
    el("a", { class: "button", href: to(middle - width / 4, middle + width / 4 - 1) }, "+ closer"),
    el("a", { class: "button", href: to(middle - width, middle + width - 1) }, "− wider"),
    SPANS.map(([name, size]) => el("a", { class: "button", href: to(until - size + 1, until) }, name)));
}

export async function page() {
  const given = await usual(here());
  const filters = filtersOf(given);
  const form = el("details", null, el("summary", null, "filters"), await filterForm("/timeline"));
  let found;
  try {
    found = await ask("timeline", { ...filters, buckets: BUCKETS });
  } catch (error) {
    if (error.status !== 400) throw error;
    form.open = true;
    show("Timeline", el("h1", null, "Timeline"), note(error.message, true),
      el("p", null, el("a", { href: link("/search", filters) }, "Search with these filters")), form);
    return;
  }
  const until = found.since + found.width * found.buckets.length - 1;
  // A second cannot be looked at any closer: it leads to its events.
  const address = (from, end) => link(found.width > 1 ? "/timeline" : "/search", { ...filters, since: at(from), until: at(end) });
  const chart = chartOf(found, address);
  const width = found.width % DAY === 0 ? `${found.width / DAY} d` : found.width % 3600 === 0 ? `${found.width / 3600} h` : found.width % 60 === 0 ? `${found.width / 60} min` : `${found.width} s`;
  const period = { ...filters, since: at(found.since), until: at(until) };
  show("Timeline", el("h1", null, "Timeline", el("small", null, `${time(iso(found.since))} to ${time(iso(until))}, ${width} a bar`)),
    controls(filters, found.since, until), chart,
    notes(found), found.buckets.flat().every((count) => count === 0) && !found.cut && note("Nothing is of this time."),
    el("div", { class: "row" }, el("a", { class: "button", href: link("/search", period) }, "The events of this time"),
      el("a", { class: "right", href: link("/timeline", period), title: "an address that shows the same tomorrow" }, "permanent link")),
    form, table(found));
}
