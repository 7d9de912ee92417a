// Small things that every screen uses: elements, icons, times, the line at the bottom, requests.

// element("button", {class: "main", onclick: f, disabled: true}, "text", child, ...). Texts become
// text nodes, so that a tag of a hostile file is shown and never run.
export function element(name, properties = {}, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(properties)) {
    if (value === undefined || value === null || value === false) continue;
    if (key.startsWith("on")) made.addEventListener(key.slice(2), value);
    else if (value === true) made.setAttribute(key, "");
    else made.setAttribute(key, value);
  }
  made.append(...children.flat().filter((child) => child !== null && child !== undefined));
  return made;
}

export function icon(name) {
  const space = "http://www.w3.org/2000/svg";
  const svg = document.createElementNS(space, "svg");
  svg.setAttribute("aria-hidden", "true");
  const use = document.createElementNS(space, "use");
  use.setAttribute("href", "#i-" + name);
  svg.append(use);
  return svg;
}

export function icon_button(name, label, onclick, properties = {}) {
  return element("button", { type: "button", class: "plain", "aria-label": label, title: label,
                             onclick, ...properties }, icon(name));
}

// `path`: "cover/ID", or empty; `size`: "small", "large" or that of a tile. A picture that does not come leaves the icon.
export function cover(path, size = "") {
  const frame = element("span", { class: "cover " + size }, icon("library"));
  if (path) {
    const image = element("img", { src: path + "?size=" + (size === "large" ? 1000 : 320), alt: "", loading: "lazy" });
    image.addEventListener("error", () => image.remove());
    frame.append(image);
  }
  return frame;
}

export function time_text(ms) {
  const seconds = Math.max(0, Math.floor(ms / 1000));
  const two = (number) => String(number).padStart(2, "0");
  const hours = Math.floor(seconds / 3600);
  return (hours ? hours + ":" + two(Math.floor(seconds / 60) % 60) : Math.floor(seconds / 60)) +
         ":" + two(seconds % 60);
}

let toast_timer = 0;
export function toast(text, shown_ms = 5000) {
  const line = document.getElementById("toast");
  line.textContent = text;
  clearTimeout(toast_timer);
  toast_timer = setTimeout(() => { line.textContent = ""; }, shown_ms);
}

// The answer of the controller; throws what is to be shown.
export async function request(path, body) {
  let answer;
  try {
    answer = await fetch("api/" + path, body === undefined ? {} : {
      method: "POST", headers: { "Content-Type": "application/json" }, body: JSON.stringify(body),
    });
  } catch {
    throw new Error("No connection to the controller. Is it running, and this phone in its network?");
  }
  const document_of = await answer.json().catch(() => ({}));
  if (!answer.ok) throw new Error(document_of.error || "The controller answered " + answer.status);
  return document_of;
}

// For what a press sets off: a failure is shown, and the result says whether it was done.
export async function attempt(work) {
  try {
    await work();
    return true;
  } catch (failure) {
    toast(failure.message);
    return false;
  }
}
