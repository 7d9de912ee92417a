// The devices: what each plays, its volume; which one the other screens are about.
import { cover, element, icon_button, request } from "./elements.js";
import { command, devices, select, selected, state, toggle_play } from "./state.js";

const kQualities = { CD: "16 bit / 48 kHz", HI_RES_LEVEL_1: "24 bit / 96 kHz",
                     HI_RES_LEVEL_2: "24 bit / 192 kHz", HI_RES_LEVEL_3: "24 bit / 768 kHz" };

function what_it_does(device) {
  const texts = {
    absent: ["Not on the network", "quiet"],
    failed: ["Can't be reached: " + device.failure + ". Is it switched on and in this network?", "warn"],
    asking: ["Is being reached …", "quiet"],
    other: ["Another controller plays here. Playing something takes it over.", "warn"],
    free: ["Free" + (kQualities[device.quality] ? ", up to " + kQualities[device.quality] : ""), "quiet"],
    apart: ["Plays on; its connection is expected back …", "warn"],
    ours: [{ playing: "Playing", paused: "Paused", stopped: "Stopped" }[device.playback], "quiet"],
  };
  return texts[device.status] || ["", "quiet"];  // kept by an older page
}

// A slider that follows the device but not under the finger; the device has the last word.
export function volume_row(device) {
  const label = "Volume of " + device.name;
  const is_known = device.volume !== undefined;
  const slider = element("input", { type: "range", min: 0, max: 100, value: device.volume ?? 0, disabled: !is_known,
                                    "aria-label": label, "data-key": "volume-" + device.id });
  let last = 0;
  let sent = null;  // not twice: where a mixer has no such step, the second one is not corrected
  const send = (at_once) => {
    const volume = Number(slider.value);
    if (volume === sent || (!at_once && performance.now() - last < 150)) return;
    last = performance.now();
    sent = volume;
    command(device, "volume", { volume }, { volume });
  };
  slider.addEventListener("input", () => send(false));
  slider.addEventListener("change", () => send(true));
  return element("div", { class: "row" },
    icon_button(device.muted ? "muted" : "volume", device.muted ? "Unmute" : "Mute",
                () => command(device, "mute", { muted: !device.muted }, { muted: !device.muted }),
                { "aria-pressed": String(Boolean(device.muted)), "data-key": "mute-" + device.id }),
    slider,
    element("span", { class: "number" }, is_known ? String(device.volume) : "–"));
}

function card(device, is_selected) {
  const [text, tone] = what_it_does(device);
  const plays = device.session === "us" && device.track;
  const is_playing = device.playback === "playing";
  return element("article", { class: "card" + (is_selected ? " selected" : ""), "aria-label": device.name },
    element("div", { class: "row" },
      element("div", { class: "grow" },
        element("h2", {}, device.name),
        element("p", { class: "quiet cut" }, [device.brand, device.model].filter(Boolean).join(" "))),
      element("button", { type: "button", "aria-pressed": String(is_selected), "data-key": "select-" + device.id,
                          "aria-label": (is_selected ? "Chosen: " : "Choose ") + device.name,
                          onclick: () => select(device.id) }, is_selected ? "Chosen" : "Choose")),
    element("p", { class: tone }, text),
    plays ? element("div", { class: "row" + (device.pending ? " pending" : "") },
      cover(device.track.cover, "small"),
      element("span", { class: "grow" }, element("span", { class: "cut" }, device.track.title),
              element("span", { class: "cut quiet" }, device.track.artist)),
      icon_button(is_playing ? "pause" : "play", (is_playing ? "Pause " : "Play ") + device.name,
                  () => toggle_play(device), { "data-key": "play-" + device.id })) : null,
    device.connected ? volume_row(device) : null);
}

export function show_devices(main) {
  const chosen = selected();
  const all = devices();
  main.replaceChildren(
    element("div", { class: "row title" }, element("h1", { tabindex: -1, class: "grow" }, "Devices"),
            icon_button("scan", "Ask all devices again", () => request("devices/look", {}).catch(() => {}),
                        { "data-key": "look" })),
    ...all.map((device) => card(device, chosen !== null && device.id === chosen.id)),
    all.length ? "" : element("p", {}, state.connected
      ? "No device has been found yet. Switch one on, in this network; it appears here by itself."
      : "Nothing is known yet."));
}
