import { ask, el, eventRow, eventTable, here, link, note, number, plural, show } from "./dom.js";
import { filterForm, filtersOf } from "./filters.js";

const PAUSE = 2000;
const MOST_ASKED = 500;
const MOST_SHOWN = 300;

/** Events that come, newest on top. Those of an answer may come again in the next one: each is shown once. */
class Tail {
  constructor(filters, table) {
    Object.assign(this, { filters, body: table.querySelector("tbody"), position: null, last: new Set(), shown: new Set(), count: 0, skipped: 0, isMore: false });
  }

  async step() {
    const found = await ask("tail", { ...this.filters, limit: MOST_ASKED, after: this.position });
    for (const row of this.body.querySelectorAll(".fresh")) row.classList.remove("fresh");
    this.skipped += found.skipped ?? 0;
    this.isMore ||= found.skipped === null;
    const before = this.last;
    this.last = new Set();
    for (const event of found.events) {
      const row = eventRow(event, true);
      const { key } = row.dataset;
      this.last.add(key);
      if (before.has(key) || this.shown.has(key)) continue;
      this.shown.add(key);
      this.count++;
      if (this.position !== null) row.classList.add("fresh");
      this.body.prepend(row);
    }
    while (this.body.children.length > MOST_SHOWN) {
      this.shown.delete(this.body.lastChild.dataset.key);
      this.body.lastChild.remove();
    }
    this.position = found.position;
  }

  /** "12 events so far; 3 more came than could be looked at" */
  text() {
    const soFar = `${plural(this.count, "event")} so far`;
    if (!this.isMore && this.skipped === 0) return this.count === 0 ? `${soFar}: nothing has come yet` : soFar;
    const more = this.skipped === 0 ? "more" : `${this.isMore ? "over " : ""}${number(this.skipped)} more`;
    return `${soFar}; ${more} came than could be looked at`;
  }
}

export async function page() {
  const filters = filtersOf(here());
  const table = eventTable([], true);
  const state = el("span", { role: "status", class: "quiet" }, "");
  const pause = el("button", { type: "button", "aria-pressed": "false", title: "Space" }, "Pause");
  const tail = new Tail(filters, table);
  const form = await filterForm("/live");
  const isPaused = () => pause.getAttribute("aria-pressed") === "true";
  pause.addEventListener("click", () => {
    pause.setAttribute("aria-pressed", String(!isPaused()));
    pause.textContent = isPaused() ? "Go on" : "Pause";
  });
  document.addEventListener("keydown", (event) => {
    if (event.key === " " && event.target === document.body) {
      event.preventDefault();
      pause.click();
    }
  });
  const parts = [el("h1", null, "Live", el("small", null, "what comes now, newest on top")), el("details", null, el("summary", null, "filters"), form)];
  try {
    await tail.step();
  } catch (error) {
    if (error.status !== 400) throw error;
    show("Live", parts, note(error.message, true));
    return;
  }
  show("Live", parts, el("div", { class: "row" }, pause, state, el("a", { class: "right", href: link("/search", filters) }, "search")), table);
  const tick = async () => {
    try {
      if (!isPaused() && !document.hidden) await tail.step();
      state.textContent = isPaused() ? "paused" : `looked at every 2 seconds; ${tail.text()}`;
    } catch (error) {
      if (error.status === 400) tail.position = null;
      state.textContent = `${error.status === 400 ? "" : "the archive does not answer, tried again: "}${error.message}`;
    }
    setTimeout(tick, PAUSE);
  };
  tick();
}
