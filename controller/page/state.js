// What the controller says there is, kept up to date by its socket; and what was pressed here a moment
// ago and is not confirmed yet.
import { attempt, request, toast } from "./elements.js";

const kKept = "nuvio-connect-last";
const kSelected = "nuvio-connect-device";
const kPatienceMs = 8000;
const kAskingMs = 30000;  // a device that does not answer is given up before
const kConfirmedMs = 700;  // after the answer the device's own state is on its way

export const state = { devices: [], library: {}, received: 0, connected: false, at: null, refusal: "" };
const listeners = new Set();
const presses = new Map();  // device id -> {key: {value, until}}
const problems = new Map();  // device id -> how many it has told of
let pause_ms = 500;

export function on_change(listener) {
  listeners.add(listener);
}

export function announce() {
  for (const listener of listeners) listener();
}

// ---- The socket ---------------------------------------------------------------------------------

function take(text, received) {
  const message = JSON.parse(text);
  state.devices = message.devices;
  state.library = message.library;
  state.received = received;
  state.at = Date.now();
  for (const device of state.devices) {
    const before = problems.get(device.id);
    problems.set(device.id, device.problem_count || 0);
    if (before !== undefined && device.problem_count > before) {
      toast(device.name + ": " + device.problem);
    }
  }
  try {
    localStorage.setItem(kKept, JSON.stringify({ text, at: state.at }));
  } catch {
    // Kept for the next time only.
  }
}

// A socket does not say why it was refused; a question does. A controller that was started again wants
// its password again: the browser asks for it where the page is loaded, and not here and now.
async function ask_why() {
  try {
    const answer = await fetch("api/events");
    state.refusal = answer.status === 403 ? "The controller asks for its password: load this page again." : "";
  } catch {
    state.refusal = "";
  }
  announce();
}

function open() {
  const url = new URL("api/events", document.baseURI);
  url.protocol = url.protocol === "https:" ? "wss:" : "ws:";
  const socket = new WebSocket(url);
  socket.onmessage = (event) => {
    state.connected = true;
    state.refusal = "";
    pause_ms = 500;
    take(event.data, performance.now());
    announce();
  };
  socket.onclose = () => {
    if (state.connected) {
      state.connected = false;
      announce();
    } else {
      ask_why();
    }
    setTimeout(open, pause_ms);
    pause_ms = Math.min(pause_ms * 2, 15000);
  };
}

export function start() {
  try {
    const kept = JSON.parse(localStorage.getItem(kKept));
    if (kept) {
      take(kept.text, performance.now());
      state.at = kept.at;
      for (const device of state.devices) {
        if (device.playback === "playing") device.playback = "paused";
      }
    }
  } catch {
    // Nothing is known from before.
  }
  open();
  // A phone that wakes up has no use for the pause.
  document.addEventListener("visibilitychange", () => {
    if (!document.hidden && state.connected) request("devices/look", {}).catch(() => {});
  });
}

// ---- Devices ------------------------------------------------------------------------------------

// With what was pressed and is not confirmed yet; `pending` says whether there is such.
function with_presses(device) {
  const pressed = presses.get(device.id);
  if (!pressed) return device;
  const shown = { ...device };
  for (const [key, { value, until }] of Object.entries(pressed)) {
    if (device[key] === value || performance.now() > until) {
      delete pressed[key];
    } else {
      shown[key] = value;
      shown.pending = true;
    }
  }
  return shown;
}

export function devices() {
  return state.devices.map(with_presses);
}

export function selected() {
  const all = devices();
  return all.find((device) => device.id === localStorage.getItem(kSelected)) ||
         all.find((device) => device.session === "us") ||
         all.find((device) => device.present) || null;
}

export function select(id) {
  localStorage.setItem(kSelected, id);
  announce();
}

// Where the device's music is now; runs by itself between messages.
export function position_ms(device) {
  const track = device.track || {};
  const runs = state.connected && device.playback === "playing" && !device.pending_seek;
  const now = device.position_ms + (runs ? performance.now() - state.received : 0);
  return track.duration_ms > 0 ? Math.min(now, track.duration_ms) : now;
}

// ---- What is pressed ----------------------------------------------------------------------------

// Shown at once; taken back where the device refuses, or does not confirm it in time.
export async function command(device, name, body = {}, shown = {}) {
  const pressed = presses.get(device.id) || {};
  presses.set(device.id, pressed);
  for (const [key, value] of Object.entries(shown)) {
    pressed[key] = { value, until: performance.now() + kPatienceMs };
  }
  announce();
  setTimeout(announce, kPatienceMs + 1);
  const path = "devices/" + encodeURIComponent(device.id) + "/command";
  const done = await attempt(() => request(path, { command: name, ...body }));
  if (!done) {
    for (const key of Object.keys(shown)) delete pressed[key];
    announce();
  } else if (name === "volume" && pressed.volume && pressed.volume.value === shown.volume) {
    // The mixer may have no such step: then its nearest one is shown.
    pressed.volume.until = performance.now() + kConfirmedMs;
    setTimeout(announce, kConfirmedMs + 1);
  }
  return done;
}

export function toggle_play(device) {
  const is_playing = device.playback === "playing";
  return command(device, is_playing ? "pause" : "play", {}, { playback: is_playing ? "paused" : "playing" });
}

export async function play(what, { where = "now", start = 0 } = {}) {
  const device = selected();
  if (!device) {
    toast("No device is on the network. Switch one on, and it appears here.");
    return false;
  }
  toast(where === "now" ? "Asking " + device.name + " …" : "Adding to the queue of " + device.name + " …",
        kAskingMs);
  const path = "devices/" + encodeURIComponent(device.id) + "/play";
  const done = await attempt(() => request(path, { what: [what], where, start }));
  if (done) toast(where === "now" ? "Plays on " + device.name : "Added");
  return done;
}
