// Which page it is, keys, and what stands above all pages.
import { ask, el, main, note, number, seconds, show, span } from "./dom.js";

const PAGES = { "/": "./fleet.js", "/search": "./search.js", "/timeline": "./timeline.js", "/blade": "./blade.js",
  "/event": "./event.js", "/live": "./live.js" };
const KEYS = { f: "/", s: "/search", t: "/timeline", l: "/live" };

for (const anchor of document.querySelectorAll("#nav a")) {
  if (anchor.getAttribute("href") === location.pathname) anchor.setAttribute("aria-current", "page");
}

async function showArchive() {
  const status = await ask("status");
  const parts = [status.engine];
  if (status.events !== null) parts.push(`${number(status.events)} events`);
  if (status.newest) parts.push(`last one ${span(seconds(status.now) - seconds(status.newest))} ago`);
  if (status.surveyed < 0.995) parts.push(`${Math.floor(100 * status.surveyed)} % surveyed`);
  document.getElementById("archive").replaceChildren(parts.join(" · "));
}

function noPage() {
  show("No such page", el("h1", null, "There is no such page"),
    el("p", null, "Nothing is shown at this address. ", el("a", { href: "/" }, "The fleet"), " is where all else begins."));
}

/** How a page was left. It is drawn only after the browser has gone to where one comes back to. */
addEventListener("pagehide", () =>
  history.replaceState({ top: scrollY, link: document.activeElement?.closest("main a")?.getAttribute("href") }, ""));

function takeUp(left) {
  if (left === null) return;
  if (left.link) main().querySelector(`a[href="${CSS.escape(left.link)}"]`)?.focus({ preventScroll: true });
  scrollTo(0, left.top);
}

/** Shows a page; while the archive is away, tries again until it is back. */
async function start() {
  try {
    if (PAGES[location.pathname]) await (await import(PAGES[location.pathname])).page();
    else noPage();
    takeUp(history.state);
    showArchive().catch(() => {});
  } catch (error) {
    const isAway = error.status === 503 || error instanceof TypeError;
    show("Not now", el("h1", null, isAway ? "The archive does not answer" : "That cannot be shown"), note(error.message, true),
      isAway && note("Tried again every 3 seconds; this page comes back by itself."));
    if (isAway) setTimeout(start, 3000);
  }
}

const rows = () => [...main().querySelectorAll("tbody tr a:first-of-type")].filter((anchor) => anchor.closest("td") ===
  anchor.closest("tr").querySelector("td"));

function move(step) {
  const all = rows();
  const at = all.findIndex((anchor) => anchor.closest("tr").contains(document.activeElement));
  all[Math.min(all.length - 1, Math.max(0, at + step))]?.focus();
}

let isAfterG = false;
document.addEventListener("keydown", (event) => {
  if (event.ctrlKey || event.altKey || event.metaKey || event.target.closest("input, select, textarea")) return;
  const wasAfterG = isAfterG;
  isAfterG = event.key === "g";
  if (wasAfterG && KEYS[event.key]) location.assign(KEYS[event.key]);
  else if (event.key === "j") move(1);
  else if (event.key === "k") move(-1);
  else if (event.key === "n") document.getElementById("next")?.click();
  else if (event.key === "/") {
    event.preventDefault();
    const field = document.querySelector("main input");
    if (field) field.focus();
    else location.assign("/search");
  }
});

start();
