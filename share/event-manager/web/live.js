import { ask, el, eventRow, eventTable, here, link, note, plural, show } from "./dom.js";
import { filterForm, filtersOf } from "./filters.js";

const PAUSE = 2000;
const MOST_SHOWN = 300;

/** Events that come, newest on top. Some come twice: each one is shown once. */
class Tail {
  constructor(filters, table, state) {
    Object.assign(this, { filters, body: table.querySelector("tbody"), state, position: null, known: new Set(), count: 0 });
  }

  async step() {
    const found = await ask("tail", { ...this.filters, limit: 100, after: this.position });
    for (const row of this.body.querySelectorAll(".fresh")) row.classList.remove("fresh");
    for (const event of found.events) {
      const row = eventRow(event, true);
      if (this.known.has(row.dataset.key)) continue;
      this.known.add(row.dataset.key);
      this.count++;
      if (this.position !== null) row.classList.add("fresh");
      this.body.prepend(row);
    }
    while (this.body.children.length > MOST_SHOWN) {
      this.known.delete(this.body.lastChild.dataset.key);
      this.body.lastChild.remove();
    }
    this.position = found.position;
    return found.events.length;
  }
}

export async function page() {
  const filters = filtersOf(here());
  const table = eventTable([], true);
  const state = el("span", { role: "status", class: "quiet" }, "");
  const pause = el("button", { type: "button", "aria-pressed": "false", title: "Space" }, "Pause");
  const tail = new Tail(filters, table, state);
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
      state.textContent = isPaused() ? "paused" : `looked at every 2 seconds; ${plural(tail.count, "event")} so far${tail.count === 0 ? ": nothing has come yet" : ""}`;
    } catch (error) {
      if (error.status === 400) tail.position = null;
      state.textContent = `${error.status === 400 ? "" : "the archive does not answer, tried again: "}${error.message}`;
    }
    setTimeout(tick, PAUSE);
  };
  tick();
}
