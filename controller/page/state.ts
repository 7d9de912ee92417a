// What the controller says there is, kept up to date by its socket; and what was pressed here a moment
// ago and is not confirmed yet.
import { batch, computed, signal } from "@preact/signals";
import { texts } from "./language";
import { attempt, request, say } from "./talk";
import { take_away } from "./undo";

const kKept = "nuvio-connect-last";
const kSelected = "nuvio-connect-device";
const kPatienceMs = 8000;
const kAskingMs = 45000;  // a device that does not answer is given up before
const kConfirmedMs = 700;  // after the answer the device's own state is on its way
const kPaceMs = 150;  // between two requests of one finger
const kNearMs = 1500;  // a position that the device tells is the one that was asked for
const kFirstPauseMs = 500;
const kLongestPauseMs = 15000;

export type Doing = "free" | "other" | "asking" | "asked" | "opening" | "playing" | "paused" | "stopped" | "silent" |
  "gone";

export interface Track {
  track_id?: number; title: string; artist: string; album: string; cover: string; duration_ms: number;
  seekable: boolean; rate_hz: number; channels: number; bits: number; changed: string;
}

// As docs/api.md has it.
export interface Device {
  id: string; name: string; announced_name: string; brand: string; model: string; quality: string; status: string; failure: string;
  present: boolean; connected: boolean; session: string; state: Doing;
  asked?: { title: string }; problem?: string; problem_count?: number;
  playback?: string; position_ms: number; item?: number; volume?: number; muted?: boolean; shuffle?: boolean;
  loop?: string; has_next?: boolean; queue_revision: number; queue_length: number; track?: Track;
  bit_exact?: boolean; played?: { title: string; verified: string };
  sleep?: { in_ms?: number; at_end?: boolean };
  is_pending?: boolean;  // something was pressed and is not confirmed yet
}

export interface Alarm {
  id: number; device: string; device_name: string; time: string; days: string[]; what: string; title: string; volume?: number;
  on: boolean; in_ms?: number; failure: string;
}

export interface LibraryState {
  folders: number; tracks: number; scanning: boolean; seen: number; revision: number; unreadable: number; lists: number;
  failure: string;
}

interface Message { version: number; devices: Device[]; alarms?: Alarm[]; library: Partial<LibraryState> }

const message = signal<Message>({ version: 0, devices: [], library: {} });
export const library = computed(() => message.value.library);
export const alarms = computed(() => message.value.alarms ?? []);
export const version = computed(() => message.value.version);
export const is_connected = signal(false);
export const known_at = signal<number | null>(null);  // when the message came; null: there was none
export const refusal = signal("");  // why there is no connection, where that is known
let received = 0;  // the same by performance.now()
let pause_ms = kFirstPauseMs;

// ---- The socket ---------------------------------------------------------------------------------

function take(text: string): void {
  const before = new Map(message.value.devices.map((device) => [device.id, device.problem_count ?? 0]));
  const now = JSON.parse(text) as Message;
  for (const device of now.devices) {
    const count = before.get(device.id);
    if (count !== undefined && (device.problem_count ?? 0) > count) say(device.name + ": " + device.problem);
  }
  received = performance.now();
  message.value = now;
}

// A socket does not say why it was refused; a question does. A controller that was started again wants
// its password again: the browser asks for it where the page is loaded, and not here and now.
const kRefusals: Record<number, string> = {
  403: texts.wants_password,
  426: texts.no_room,
};
async function ask_why(): Promise<void> {
  const answer = await fetch("api/events").catch(() => null);
  if (!is_connected.value) refusal.value = (answer && kRefusals[answer.status]) || "";
}

function open(): void {
  const url = new URL("api/events", document.baseURI);
  url.protocol = url.protocol === "https:" ? "wss:" : "ws:";
  const socket = new WebSocket(url);
  socket.addEventListener("message", (event) => {
    pause_ms = kFirstPauseMs;
    batch(() => {
      is_connected.value = true;
      refusal.value = "";
      known_at.value = Date.now();
      take(event.data);
    });
  });
  socket.addEventListener("close", () => {
    setTimeout(open, pause_ms);
    pause_ms = Math.min(pause_ms * 2, kLongestPauseMs);
    if (is_connected.value) is_connected.value = false;
    else void ask_why();
  });
}

function keep(): void {
  try {
    const kept = { text: JSON.stringify(message.value), at: known_at.value };
    if (kept.at !== null) localStorage.setItem(kKept, JSON.stringify(kept));
  } catch {
    // Kept for the next time only.
  }
}

export function start(): void {
  try {
    const kept = JSON.parse(localStorage.getItem(kKept) ?? "null");
    if (kept) {
      take(kept.text);
      known_at.value = kept.at;
    }
  } catch {
    // Nothing is known from before.
  }
  open();
  window.addEventListener("pagehide", keep);
  // A phone that wakes up has no use for the pause.
  document.addEventListener("visibilitychange", () => {
    if (document.hidden) keep();
    else if (is_connected.value) request("devices/look", {}).catch(() => {});
  });
}

// ---- Devices ------------------------------------------------------------------------------------

interface Press { value: unknown; until: number; at: number; is_answered: boolean; item: number | undefined }
type Shown = Partial<Pick<Device, "state" | "item" | "volume" | "muted" | "shuffle" | "loop" | "position_ms">>;

const presses = new Map<string, Map<string, Press>>();  // by device and member
const presses_changed = signal(0);

// A position that was asked for runs on from there; any other member is confirmed by the same value.
function is_confirmed(device: Device, key: string, press: Press): boolean {
  if (key !== "position_ms") return device[key as keyof Device] === press.value;
  if (device.item !== press.item) return true;
  return press.is_answered && received > press.at &&
         Math.abs(device.position_ms - (press.value as number)) < kNearMs;
}

function with_presses(device: Device): Device {
  const pressed = presses.get(device.id);
  if (!pressed) return device;
  const shown = { ...device };
  for (const [key, press] of pressed) {
    if (is_confirmed(device, key, press) || performance.now() > press.until) {
      pressed.delete(key);
    } else {
      Object.assign(shown, { [key]: press.value });
      if (key !== "position_ms") shown.is_pending = true;
    }
  }
  return shown;
}

export const devices = computed(() => {
  void presses_changed.value;
  return message.value.devices.map(with_presses);
});

const selected_id = signal(localStorage.getItem(kSelected));
export const selected = computed(() => {
  const all = devices.value;
  return all.find((device) => device.id === selected_id.value) ??
         all.find((device) => device.session === "us") ?? all.find((device) => device.present) ?? null;
});

export function select(id: string): void {
  selected_id.value = id;
  localStorage.setItem(kSelected, id);
}

export function is_running(device: Device): boolean {
  return is_connected.value && device.state === "playing";
}

// Where the device's music is now; runs by itself between messages.
export function position_ms(device: Device): number {
  const sought = presses.get(device.id)?.get("position_ms");
  const since = sought ? sought.at : received;
  const now = device.position_ms + (is_running(device) ? performance.now() - since : 0);
  const duration = device.track?.duration_ms ?? 0;
  return duration > 0 ? Math.min(now, duration) : now;
}

export function sleeps_in_ms({ sleep }: Device): number {
  return (sleep?.in_ms ?? 0) - (performance.now() - received);
}

// ---- What is pressed ----------------------------------------------------------------------------

function path_of(device: Device, name: string): string {
  return "devices/" + encodeURIComponent(device.id) + "/" + name;
}

function look_again_in(ms: number): void {
  setTimeout(() => { presses_changed.value++; }, ms + 1);
}

function show_press(device: Device, shown: Shown): Map<string, Press> {
  const pressed = presses.get(device.id) ?? new Map<string, Press>();
  presses.set(device.id, pressed);
  const at = performance.now();
  for (const [key, value] of Object.entries(shown)) {
    pressed.set(key, { value, until: at + kPatienceMs, at, is_answered: false, item: device.item });
  }
  presses_changed.value++;
  if (Object.keys(shown).length > 0) look_again_in(kPatienceMs);
  return pressed;
}

const kGoesElsewhere = new Set(["previous", "next", "stop", "queue_jump"]);  // a position asked for is void

// Shown at once; taken back where the device refuses, or does not confirm it in time.
export async function command(device: Device, name: string, body: object = {}, shown: Shown = {}): Promise<boolean> {
  const pressed = show_press(device, shown);
  if (kGoesElsewhere.has(name)) pressed.delete("position_ms");
  const done = await attempt(() => request(path_of(device, "command"), { command: name, ...body }));
  for (const [key, value] of Object.entries(shown)) {
    const press = pressed.get(key);
    if (!press || press.value !== value) continue;
    press.is_answered = true;
    if (!done) pressed.delete(key);
    // The mixer may have no such step: then its nearest one is shown.
    if (done && key === "volume") press.until = performance.now() + kConfirmedMs;
  }
  presses_changed.value++;
  look_again_in(kConfirmedMs);
  return done;
}

// For what a finger moves: one request at a time, not too many of them, and the last one counts.
const lanes = new Map<string, { next: (() => Promise<unknown>) | null }>();
export async function steer(device: Device, name: string, shown: Shown): Promise<void> {
  show_press(device, shown);
  const key = name + " " + device.id;
  const send = () => command(device, name, shown, shown);
  const busy = lanes.get(key);
  if (busy) {
    busy.next = send;
    return;
  }
  const lane: { next: typeof send | null } = { next: send };
  lanes.set(key, lane);
  while (lane.next) {
    const now = lane.next;
    lane.next = null;
    await now();
    await new Promise((done) => setTimeout(done, kPaceMs));
  }
  lanes.delete(key);
}

// So often was something pressed here that is to be heard.
export const play_presses = signal(0);

export function toggle_play(device: Device): Promise<boolean> {
  if (is_paused(device)) play_presses.value++;
  return is_paused(device) ? command(device, "play", {}, { state: "playing" })
                           : command(device, "pause", {}, { state: "paused" });
}

// What the button that plays and pauses would do.
export function is_paused(device: Device): boolean {
  return device.state === "paused" || device.state === "stopped" || device.state === "free";
}

// The page goes with it.
export async function move_music(device: Device, to: Device): Promise<void> {
  say(texts.moving_to(to.name), kAskingMs);
  await attempt(async () => {
    const { left } = await request<{ left?: string }>(path_of(device, "move"), { to: to.id });
    select(to.id);
    say(texts.moved_to(to.name) + (left ? ". " + left : ""));
  });
}

export function rename(device: Device, name: string): Promise<boolean> {
  return attempt(() => request(path_of(device, "name"), { name }));
}

export function set_sleep(device: Device, wish: object): Promise<boolean> {
  return attempt(() => request(path_of(device, "sleep"), wish));
}

export type Where = "now" | "next" | "end";

export async function play(what: string, { where = "now", start }: { where?: Where; start?: number } = {}): Promise<boolean> {
  const device = selected.value;
  if (!device) {
    say(texts.no_device_to_play);
    return false;
  }
  play_presses.value++;
  say((where === "now" ? texts.asking : texts.adding_to_queue_of)(device.name), kAskingMs);
  // What comes of it, the device's own state tells.
  return take_away(device, "play", { what: [what], where, start },
                   (where === "now" ? texts.was_asked : texts.added_to_queue_of)(device.name));
}
