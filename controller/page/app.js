// The page: which screen is shown, and that it is up to date.
import { show_devices } from "./devices.js";
import { scan_line, show_library, target_text } from "./library.js";
import { run_position, show_mini, show_playing, show_queue } from "./player.js";
import { devices, on_change, selected, start, state } from "./state.js";

const kTitles = { devices: "", library: "Library · ", queue: "Queue · ", playing: "Playing · " };
const main = document.getElementById("main");
let shown = "";  // the screen's hash
let visit = 0;
let seen = "";  // what the screen was last made of
let library_revision = null;

function words_of_hash() {
  const words = location.hash.slice(1).split("/").map((word) => {
    try {
      return decodeURIComponent(word);
    } catch {
      return word;
    }
  });
  return Object.hasOwn(kTitles, words[0]) ? words : ["devices"];
}

function show_banner() {
  const banner = document.getElementById("banner");
  banner.hidden = state.connected;
  banner.textContent = state.refusal || (state.at === null ? "Connecting to the controller …"
    : "No connection to the controller. This is what was known at " +
      new Date(state.at).toLocaleTimeString() + ".");
}

// What is made anew keeps the focus and what is held by a finger.
function keeping_focus(work) {
  const key = document.activeElement && document.activeElement.dataset.key;
  work();
  if (!key) return;
  const again = document.querySelector(`[data-key="${CSS.escape(key)}"]:enabled`) || main.querySelector("h1");
  if (again && again !== document.activeElement) again.focus({ preventScroll: true });
}

// Positions run by themselves, so a message that brings nothing else leaves the screen as it is: what
// is under a finger stays.
function what_is_seen() {
  const chosen = selected();
  return JSON.stringify([visit, state.connected, chosen && chosen.id, devices()],
                        (key, value) => (key === "position_ms" ? undefined : value));
}

// A slider under a finger, and a list that is open, stay until they are let go. Not every browser
// gives what a finger holds the focus.
const kListOpenMs = 15000;  // longer: it was left without a choice
let held = null;
function hold(event) {
  held = event.target.closest(event.type === "keydown" ? "select" : "input[type=range], select");
  const now = held;
  if (held && held.matches("select")) setTimeout(() => { if (held === now) let_go(); }, kListOpenMs);
}
function let_go(event) {
  if (!held || (event && event.type === "pointerup" && held.matches("select"))) return;
  held = null;
  refresh();
}

function is_held() {
  return held !== null && held.isConnected;
}

function refresh() {
  show_banner();
  const screen = words_of_hash()[0];
  if (is_held()) return;
  const own = visit;
  const now = what_is_seen();
  if (now !== seen) {
    seen = now;
    keeping_focus(() => {
      show_mini(document.getElementById("mini"), screen !== "playing");
      if (screen === "devices") show_devices(main);
      else if (screen === "playing") show_playing(main);
    });
    if (screen === "queue") show_queue(main, () => own === visit, keeping_focus);
  }
  if (screen === "library") {
    const line = document.getElementById("scan");
    if (line) line.replaceChildren(scan_line());
    const target = document.getElementById("target");
    if (target) target.textContent = target_text();
    if (library_revision !== null && library_revision !== state.library.revision &&
        !state.library.scanning && window.scrollY < 200) {
      show_screen();
    }
    if (!state.library.scanning) library_revision = state.library.revision;
  }
  run_position();
}

function show_screen() {
  const words = words_of_hash();
  const own = ++visit;
  const is_new = shown !== location.hash;
  const is_other = shown.split("/")[0] !== location.hash.split("/")[0];
  shown = location.hash;
  for (const link of document.querySelectorAll("nav a")) {
    if (link.hash === "#" + words[0]) link.setAttribute("aria-current", "page");
    else link.removeAttribute("aria-current");
  }
  document.title = kTitles[words[0]] + "Nuvio Connect";
  if (words[0] === "library") {
    if (is_other) main.replaceChildren();
    show_library(main, words.slice(1), () => own === visit);
  }
  refresh();
  if (is_new && words[1] !== "search") window.scrollTo(0, 0);
  const title = main.querySelector("h1");
  if (is_other && title) title.focus({ preventScroll: true });
}

on_change(refresh);
window.addEventListener("hashchange", show_screen);
document.querySelector(".skip").addEventListener("click", (event) => {
  event.preventDefault();
  main.focus();
});
for (const name of ["pointerdown", "keydown"]) document.addEventListener(name, hold);
for (const name of ["pointerup", "pointercancel", "change", "focusout"]) document.addEventListener(name, let_go);
start();
show_screen();
if ("serviceWorker" in navigator) {
  navigator.serviceWorker.register("worker.js").catch(() => {});
}
