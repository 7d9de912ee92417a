// The queue, what plays now, and the small line about it above the screens' names.
import { attempt, cover, element, icon, icon_button, request, time_text, toast } from "./elements.js";
import { command, devices, position_ms, select, selected, state, toggle_play } from "./state.js";
import { volume_row } from "./devices.js";

const kLoops = ["off", "all", "one"];
const kRows = 300;
const kKept = "nuvio-connect-queue";
const kNothing = { device: null, revision: null, items: [] };
let queue = kNothing;
let rows_wanted = kRows;
let built = "";  // what the rows that stand there were made of

function nothing_here(device, text) {
  return [element("h1", { tabindex: -1 }, text),
          element("p", {}, device ? "Nothing of this controller plays on " + device.name + ". "
                                  : "No device is on the network. "),
          element("p", {}, element("a", { class: "button", href: device ? "#library" : "#devices" },
                                   device ? "Choose some music" : "Look at the devices"))];
}

// ---- Queue --------------------------------------------------------------------------------------

function move(device, item, before) {
  return command(device, "queue_move", before === null ? { items: [item] } : { items: [item], before });
}

// The row follows the finger, and the list moves on where that comes to the screen's edge; the order
// is sent when it is let go.
const kEdge = 130;
const kEdgeStep = 9;
function start_drag(event, row, device, item) {
  const handle = event.currentTarget;
  const list = row.parentElement;
  const begin = row.nextElementSibling;
  handle.setPointerCapture(event.pointerId);
  row.classList.add("dragged");
  list.dataset.dragging = "1";
  let y = event.clientY;
  const follow = () => {
    const under = [...list.children].find((each) => {
      const box = each.getBoundingClientRect();
      return each !== row && y < box.top + box.height / 2;
    });
    if (row.nextElementSibling !== (under || null)) list.insertBefore(row, under || null);
  };
  handle.onpointermove = (at) => {
    y = at.clientY;
    follow();
  };
  const scroll = () => {
    if (!list.dataset.dragging) return;
    const before = window.scrollY;
    window.scrollBy(0, y < kEdge / 2 ? -kEdgeStep : y > window.innerHeight - kEdge ? kEdgeStep : 0);
    if (window.scrollY !== before) follow();
    requestAnimationFrame(scroll);
  };
  scroll();
  const end = async (is_done) => {
    handle.onpointermove = handle.onpointerup = handle.onpointercancel = null;
    row.classList.remove("dragged");
    delete list.dataset.dragging;
    const next = row.nextElementSibling;
    if (!is_done || next === begin) return;
    if (!await move(device, item, next ? Number(next.dataset.item) : null)) list.insertBefore(row, begin);
  };
  handle.onpointerup = () => end(true);
  handle.onpointercancel = () => end(false);
}

function move_by_key(event, device, place) {
  const step = { ArrowUp: -1, ArrowDown: 1 }[event.key];
  const target = place + step;
  if (!step || target < 0 || target >= queue.items.length) return;
  event.preventDefault();
  const before = queue.items[step < 0 ? target : target + 1];
  move(device, queue.items[place].item, before ? before.item : null);
  toast(queue.items[place].title + ": place " + (target + 1) + " of " + queue.items.length);
}

function queue_row(device, entry, place) {
  const row = element("li", { "data-item": entry.item });
  row.append(
    element("button", { type: "button", class: "open", "data-key": "jump-" + entry.item,
                        onclick: () => command(device, "queue_jump", { item: entry.item }, { item: entry.item }) },
      cover(entry.cover, "small"),
      element("span", { class: "grow" }, element("span", { class: "cut" }, entry.title),
              element("span", { class: "cut quiet" }, entry.artist))),
    icon_button("remove", "Remove " + entry.title,
                () => command(device, "queue_remove", { items: [entry.item] }),
                { "data-key": "remove-" + entry.item }),
    icon_button("handle", "Move " + entry.title + " (arrow keys)", () => {}, {
      class: "plain drag", "data-key": "move-" + entry.item,
      onpointerdown: (event) => start_drag(event, row, device, entry.item),
      onkeydown: (event) => move_by_key(event, device, place) }));
  return row;
}

function mark_current(list, item) {
  for (const row of list.children) {
    const is_current = Number(row.dataset.item) === item;
    row.classList.toggle("now", is_current);
    if (is_current) row.setAttribute("aria-current", "true");
    else row.removeAttribute("aria-current");
  }
}

// Without a connection: what was last seen.
async function read_queue({ id, queue_revision }) {
  if (!state.connected) {
    const kept = JSON.parse(localStorage.getItem(kKept) || "null");
    if (kept && kept.device === id) queue = kept;
    return;
  }
  const answer = await request("devices/" + encodeURIComponent(id) + "/queue");
  queue = { device: id, revision: queue_revision, items: answer.items };
  try {
    localStorage.setItem(kKept, JSON.stringify({ ...queue, revision: null, items: queue.items.slice(0, kRows) }));
  } catch {
    // Shown as long as the page stays open only.
  }
}

export async function show_queue(main, is_current, keeping_focus) {
  const device = selected();
  if (!device || device.session !== "us" || !device.queue_length) {
    queue = kNothing;
    main.replaceChildren(...nothing_here(device, "Queue"));
    return;
  }
  if (queue.device !== device.id || queue.revision !== device.queue_revision ||
      queue.items.length < device.queue_length) {
    if (queue.device !== device.id) rows_wanted = kRows;
    await attempt(() => read_queue(device));
    if (!is_current()) return;
  }
  if (main.querySelector("[data-dragging]")) return;
  const wanted = JSON.stringify([device.id, device.name, queue.revision, queue.items.length, rows_wanted]);
  if (!main.querySelector("#queue") || built !== wanted) {
    built = wanted;
    keeping_focus(() => main.replaceChildren(
      element("h1", { tabindex: -1 }, "Queue"),
      element("p", { class: "quiet" }, device.name + " · " + device.queue_length + (device.queue_length === 1 ? " track" : " tracks")),
      element("ul", { class: "list", id: "queue" },
        queue.items.slice(0, rows_wanted).map((entry, place) => queue_row(device, entry, place))),
      queue.items.length > rows_wanted ? element("button", { type: "button", "data-key": "more", onclick: () => {
        rows_wanted += kRows;
        show_queue(main, is_current, keeping_focus);
      } }, "Show more") : ""));
  }
  mark_current(main.querySelector("#queue"), device.item);
}

// ---- Now playing --------------------------------------------------------------------------------

function format_text(device) {
  const track = device.track;
  if (!track.rate_hz || track.changed) return track.changed || "";
  const parts = [track.rate_hz / 1000 + " kHz", track.bits + " bit",
                 { 1: "mono", 2: "stereo" }[track.channels] || track.channels + " channels"];
  return parts.join(" · ") + (device.bit_exact ? " · bit-exact" : "");
}

// Of a device that says so: whether the output took the samples of which the file has a sum.
function played_text({ title, verified }) {
  return "Before: " + title + " · " + (verified === "verified" ? "" : "not verified: ") + verified;
}

function seek_row(device) {
  const length = device.track.duration_ms;
  const can_seek = device.track.seekable && length > 0;
  const slider = element("input", { type: "range", min: 0, max: Math.max(1, length), step: 1,
                                    value: position_ms(device), disabled: !can_seek, id: "seek",
                                    "aria-label": "Position", "data-key": "seek" });
  slider.addEventListener("input", () => { slider.dataset.held = "1"; });
  slider.addEventListener("change", () => {
    delete slider.dataset.held;
    const position = Number(slider.value);
    device.position_ms = position;
    command(device, "seek", { position_ms: position });
  });
  return element("div", {}, slider, element("div", { class: "times quiet" },
    element("span", { id: "position" }), element("span", {}, length > 0 ? time_text(length) : "live")));
}

function mode_buttons(device) {
  const next_loop = kLoops[(kLoops.indexOf(device.loop) + 1) % kLoops.length];
  const loop_text = { off: "Repeat: off", all: "Repeat: all", one: "Repeat: this track" }[device.loop];
  return [
    icon_button("shuffle", "Shuffle", () => command(device, "shuffle", { shuffle: !device.shuffle }, { shuffle: !device.shuffle }),
                { "aria-pressed": String(device.shuffle), "data-key": "shuffle" }),
    icon_button(device.loop === "one" ? "loop-one" : "loop", loop_text,
                () => command(device, "loop", { loop: next_loop }, { loop: next_loop }),
                { "aria-pressed": String(device.loop !== "off"), "data-key": "loop" })];
}

function device_choice(device) {
  const choice = element("select", { "aria-label": "Device", "data-key": "device" },
    devices().map((each) => element("option", { value: each.id, selected: each.id === device.id }, each.name)));
  choice.addEventListener("change", () => select(choice.value));
  return choice;
}

export function show_playing(main) {
  const device = selected();
  if (!device || device.session !== "us" || !device.track) {
    main.replaceChildren(...nothing_here(device, "Playing"), device ? device_choice(device) : "");
    return;
  }
  const is_playing = device.playback === "playing";
  const [shuffle, loop] = mode_buttons(device);
  const track = device.track;
  main.replaceChildren(element("div", { class: "player" + (device.pending ? " pending" : "") },
    cover(track.cover, "large"),
    element("div", {}, element("h1", { tabindex: -1 }, track.title),
      element("p", { class: "cut" }, track.artist), element("p", { class: "quiet cut" }, track.album),
      element("p", { class: "quiet", id: "format" }, format_text(device)),
      device.played ? element("p", { class: "quiet cut", id: "played" }, played_text(device.played)) : ""),
    seek_row(device),
    element("div", { class: "transport" }, shuffle,
      icon_button("previous", "Previous", () => command(device, "previous"), { "data-key": "previous" }),
      element("button", { type: "button", class: "main round", "aria-label": is_playing ? "Pause" : "Play",
                          "data-key": "toggle", onclick: () => toggle_play(device) }, icon(is_playing ? "pause" : "play")),
      icon_button("next", "Next", () => command(device, "next"), { "data-key": "next", disabled: !device.has_next }),
      loop),
    volume_row(device),
    element("div", { class: "row" }, device_choice(device),
      icon_button("stop", "Stop", () => command(device, "stop"), { "data-key": "stop" }))));
  run_position();
}

// ---- The small line, and the running position ---------------------------------------------------

export function show_mini(mini, is_wanted) {
  const device = selected();
  mini.hidden = !is_wanted || !device || device.session !== "us" || !device.track;
  if (mini.hidden) {
    mini.replaceChildren();
    return;
  }
  const is_playing = device.playback === "playing";
  mini.replaceChildren(
    cover(device.track.cover, "small"),
    element("a", { class: "grow", href: "#playing" }, element("span", { class: "cut" }, device.track.title),
            element("span", { class: "cut quiet" }, device.name + (device.track.artist ? " · " + device.track.artist : ""))),
    icon_button(is_playing ? "pause" : "play", is_playing ? "Pause" : "Play", () => toggle_play(device),
                { "data-key": "mini-toggle" }));
}

let is_running = false;
// A frame at a time, while there is a position to be seen that moves.
export function run_position() {
  const step = () => {
    const slider = document.getElementById("seek");
    const device = slider && selected();
    is_running = Boolean(device && device.track);
    if (!is_running) return;
    const at = slider.dataset.held ? Number(slider.value) : position_ms(device);
    if (!slider.dataset.held) slider.value = at;
    const text = time_text(at);
    const shown = document.getElementById("position");
    if (shown.textContent !== text) {
      shown.textContent = text;
      slider.setAttribute("aria-valuetext", text);
    }
    is_running = device.playback === "playing" && state.connected && !document.hidden;
    if (is_running) requestAnimationFrame(step);
  };
  if (!is_running) step();
}
document.addEventListener("visibilitychange", run_position);
