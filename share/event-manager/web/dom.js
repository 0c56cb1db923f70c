// What all pages share. Texts go into the page as texts only: nothing that an event says is ever read as markup.

const SVG = "http://www.w3.org/2000/svg";

function put(element, attributes, children) {
  for (const [name, value] of Object.entries(attributes ?? {})) {
    if (name.startsWith("on")) element.addEventListener(name.slice(2), value);
    else if (value !== undefined && value !== null && value !== false) element.setAttribute(name, value === true ? "" : value);
  }
  element.append(...children.flat(Infinity).filter((child) => child !== null && child !== undefined && child !== false));
  return element;
}

/** An element with attributes ("onclick" and the like take functions) and children: elements and texts. */
export const el = (name, attributes, ...children) => put(document.createElement(name), attributes, children);
export const svg = (name, attributes, ...children) => put(document.createElementNS(SVG, name), attributes, children);

export const main = () => document.getElementById("main");

export function show(title, ...children) {
  document.title = `${title} · Event archive`;
  main().replaceChildren(...children.flat(Infinity).filter(Boolean));
  main().setAttribute("aria-busy", "false");
}

/** What the address says. */
export const here = () => Object.fromEntries([...new URLSearchParams(location.search)].filter(([, value]) => value !== ""));

/** An address; parameters without a value are left out, lists get commas. */
export function link(path, parameters = {}) {
  const query = new URLSearchParams();
  for (const [name, value] of Object.entries(parameters)) {
    const text = Array.isArray(value) ? value.join(",") : value;
    if (text !== undefined && text !== null && text !== "") query.set(name, text);
  }
  const text = query.toString();
  return text === "" ? path : `${path}?${text}`;
}

/** Asks the archive. Throws an Error with the server's own words. */
export async function ask(question, parameters) {
  const answer = await fetch(link(`/api/v1/${question}`, parameters), { headers: { Accept: "application/json" } });
  const json = await answer.json().catch(() => ({ error: `status ${answer.status}` }));
  if (!answer.ok) {
    const error = new Error(json.error);
    error.status = answer.status;
    throw error;
  }
  return json;
}

export const plural = (value, one, many = `${one}s`) => `${number(value)} ${value === 1 ? one : many}`;
export const number = (value) => (value === null || value === undefined ? "" : Number(value).toLocaleString("en-US"));

/** "2026-11-22 10:48:00" */
export const time = (iso) => (iso ? iso.replace("T", " ").replace("Z", "") : "");
export const seconds = (iso) => Date.parse(iso) / 1000;
export const iso = (value) => new Date(value * 1000).toISOString().replace(".000Z", "Z");

/** "3 min", "5 h", "12 d" */
export function span(value) {
  const size = Math.abs(value);
  for (const [name, width] of [["d", 86400], ["h", 3600], ["min", 60]]) {
    if (size >= 2 * width) return `${Math.round(size / width)} ${name}`;
  }
  return `${Math.round(size)} s`;
}

export const bladeText = (enclosure, blade, slot) => (blade === "" ? `${enclosure}/${slot}` : blade);

/** The type, told by its word and its shape. */
export function kind(type, name) {
  const known = type === 3 ? "error" : type === 2 ? "warning" : "";
  return el("span", { class: `kind ${known}` }, name ?? String(type));
}

export function figures(pairs) {
  return el("dl", { class: "figures" }, pairs.map(([name, value]) => el("div", null, el("dt", null, name), el("dd", null, value))));
}

export function facts(pairs) {
  return el("dl", { class: "facts" }, pairs.filter(([, value]) => value !== "" && value !== null && value !== undefined)
    .map(([name, value]) => [el("dt", null, name), el("dd", null, value)]));
}

export const note = (text, isError = false) => el("p", { class: isError ? "note error" : "note", role: isError ? "alert" : null }, text);

export const eventLink = (event) => link("/event", { log: event.log, generation: event.generation, id: event.sequenceId });

/** One row of a list of events. @param withBlade whether it says whose event it is */
export function eventRow(event, withBlade = true) {
  const name = event.idName ?? String(event.id);
  return el("tr", { "data-key": `${event.log}.${event.generation}.${event.sequenceId}` },
    el("td", { class: "nowrap" }, el("a", { href: eventLink(event) }, time(event.time))),
    withBlade && el("td", { class: "blade" }, el("a", { href: link("/blade", { log: event.log }) },
      bladeText(event.enclosureId, event.bladeId, event.slotId))),
    el("td", null, kind(event.type, event.typeName)),
    el("td", { class: "nowrap" }, event.sourceName ?? String(event.source)),
    el("td", { class: "nowrap" }, name),
    el("td", { class: "number", "data-name": "id" }, String(event.sequenceId)),
    el("td", { class: "text" }, el("span", { class: "clamp" }, event.text ?? event.data.slice(0, 64))));
}

export function eventTable(events, withBlade, caption) {
  const heads = ["time (UTC)", withBlade && "blade", "type", "source", "event", "id", "text"].filter(Boolean);
  return el("table", { class: "events" }, caption && el("caption", null, caption),
    el("thead", null, el("tr", null, heads.map((head) =>
      el("th", { scope: "col", class: head === "id" ? "number" : null }, head)))),
    el("tbody", null, events.map((event) => eventRow(event, withBlade))));
}
