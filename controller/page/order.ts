// The queue of the device that is chosen, in the order that it will have once what was moved here is
// confirmed.
import { computed, signal } from "@preact/signals";
import type { Device } from "./state";
import { command, is_connected } from "./state";
import { attempt, request } from "./talk";

const kKept = "nuvio-connect-queue";
const kKeptRows = 300;  // for a page without a connection
const kPatienceMs = 8000;
const kShortPauseMs = 300;  // before the rest of a queue is asked for that the controller is still reading

export interface Entry { item: number; track_id?: number; title: string; artist: string; album: string; cover: string; duration_ms: number }
interface Queue { device: string | null; revision: number | null; items: Entry[] }
interface Move { before: number | null; until: number; is_answered: boolean }

const kNothing: Queue = { device: null, revision: null, items: [] };
const queue = signal<Queue>(kNothing);
const moves = signal<ReadonlyMap<number, Move>>(new Map());  // by item
let reading: string | null = null;  // the device that is being asked
let is_outdated = false;

export function moved(items: readonly Entry[], item: number, before: number | null): Entry[] {
  const entry = items.find((each) => each.item === item);
  if (!entry || item === before) return [...items];
  const rest = items.filter((each) => each !== entry);
  const at = before === null ? -1 : rest.findIndex((each) => each.item === before);
  rest.splice(at < 0 ? rest.length : at, 0, entry);
  return rest;
}

export const order = computed(() => {
  let { items } = queue.value;
  for (const [item, move] of moves.value) items = moved(items, item, move.before);
  return { device: queue.value.device, items };
});

function forget_moves(is_over: (item: number, move: Move) => boolean): void {
  if (moves.value.size === 0) return;
  moves.value = new Map([...moves.value].filter(([item, move]) => !is_over(item, move)));
}

function is_done(items: Entry[], item: number, { before, until, is_answered }: Move): boolean {
  const at = items.findIndex((each) => each.item === item);
  const next = items[at + 1]?.item ?? null;
  return at < 0 || performance.now() > until || (is_answered && next === before);
}

function show(now: Queue): void {
  if (now.device !== queue.value.device) moves.value = new Map();
  queue.value = now;
  forget_moves((item, move) => is_done(now.items, item, move));
  try {
    localStorage.setItem(kKept, JSON.stringify({ ...now, revision: null, items: now.items.slice(0, kKeptRows) }));
  } catch {
    // Shown as long as the page stays open only.
  }
}

async function read({ id, queue_length }: Device): Promise<void> {
  reading = id;
  do {
    is_outdated = false;
    const answer = await request<Queue>("devices/" + encodeURIComponent(id) + "/queue");
    if (reading === id) show({ device: id, revision: answer.revision, items: answer.items });
    if (answer.items.length < queue_length) await new Promise((done) => setTimeout(done, kShortPauseMs));
  } while (is_outdated && reading === id);
}

// Has it read where it is another than what is shown. Without a connection: what was last seen.
export function follow(device: Device): void {
  const known = queue.value;
  if (!is_connected.value) {
    if (known.device === device.id) return;
    const kept = JSON.parse(localStorage.getItem(kKept) ?? "null") as Queue | null;
    queue.value = kept?.device === device.id ? kept : kNothing;
    return;
  }
  const is_known = known.device === device.id && known.revision === device.queue_revision &&
                   known.items.length >= device.queue_length;
  if (is_known) return;
  is_outdated = true;
  if (reading === device.id) return;
  void attempt(() => read(device)).then(() => { if (reading === device.id) reading = null; });
}

// One after the other: the device takes them in the order in which they were pressed.
let last_move: Promise<unknown> = Promise.resolve();
export function move(device: Device, item: number, before: number | null): Promise<boolean> {
  const now: Move = { before, until: performance.now() + kPatienceMs, is_answered: false };
  const rest = new Map(moves.value);
  rest.delete(item);  // the last one counts, and comes last
  moves.value = rest.set(item, now);
  const done = last_move.then(() => command(device, "queue_move", before === null ? { items: [item] } : { items: [item], before }));
  last_move = done;
  void done.then((is_moved) => {
    now.is_answered = true;
    forget_moves((each, known) => known === now && (!is_moved || is_done(queue.value.items, each, known)));
    setTimeout(() => forget_moves((_, known) => known === now), is_moved ? kPatienceMs : 0);
  });
  return done;
}
