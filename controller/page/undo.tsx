// What was taken away can be had back, as long as the line at the bottom says that it was.
import { signal } from "@preact/signals";
import { texts } from "./language";
import { attempt, request, said, say } from "./talk";

const kOfferedMs = 10000;

interface Offer { text: string; take_back: () => Promise<unknown> }
const offer = signal<Offer | null>(null);

// `take_back`: what a press on "Undo" asks of the controller.
export function say_with_undo(text: string, take_back: () => Promise<unknown>): void {
  offer.value = { text, take_back };
  say(text, kOfferedMs);
}

// What a change of a device's queue answers: the number that takes it back.
export interface Undoable { undo?: number }

export function say_done(device: { id: string }, text: string, { undo }: Undoable): void {
  if (undo === undefined) say(text);
  else say_with_undo(text, () => request("devices/" + encodeURIComponent(device.id) + "/undo", { undo }));
}

// Asks it of the device, and says `text` once it is done. What fails half way can be taken back, too.
export async function take_away(device: { id: string }, what: string, body: object, text: string): Promise<boolean> {
  try {
    say_done(device, text, await request<Undoable>("devices/" + encodeURIComponent(device.id) + "/" + what, body));
    return true;
  } catch (failure) {
    say_done(device, (failure as Error).message, failure as Undoable);
    return false;
  }
}

export function Undo() {
  const now = offer.value;
  if (!now || said.value !== now.text) return null;
  const press = async (event: Event) => {
    event.stopPropagation();
    say(texts.being_put_back, kOfferedMs);
    if (await attempt(now.take_back)) say(texts.is_back);
    else say_with_undo(said.value, now.take_back);
  };
  return <button type="button" onClick={press}>{texts.undo}</button>;
}
