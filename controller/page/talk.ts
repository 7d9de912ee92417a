// What every screen does with the controller: a request, and the line that says what came of it.
import { signal } from "@preact/signals";
import { texts } from "./language";

const kShownMs = 5000;

// The line at the bottom; empty: none.
export const said = signal("");
let said_timer: ReturnType<typeof setTimeout> | undefined;

export function say(text: string, shown_ms = kShownMs): void {
  said.value = text;
  clearTimeout(said_timer);
  said_timer = setTimeout(() => { said.value = ""; }, shown_ms);
}

// The answer of the controller; throws what is to be shown, with the `undo` of what was done of it.
export async function request<T = object>(path: string, body?: object): Promise<T> {
  let answer: Response;
  try {
    answer = await fetch("api/" + path, body === undefined ? {} : {
      method: "POST", headers: { "Content-Type": "application/json" }, body: JSON.stringify(body),
    });
  } catch {
    throw new Error(texts.no_connection);
  }
  const document_of = await answer.json().catch(() => ({}));
  if (!answer.ok) {
    throw Object.assign(new Error(document_of.error || texts.answered(answer.status)), { undo: document_of.undo });
  }
  return document_of;
}

// For what a press sets off: a failure is shown, and the result says whether it was done.
export async function attempt(work: () => Promise<unknown>): Promise<boolean> {
  try {
    await work();
    return true;
  } catch (failure) {
    say((failure as Error).message);
    return false;
  }
}

function two(number: number): string {
  return String(number).padStart(2, "0");
}

export function time_text(ms: number): string {
  const seconds = Math.max(0, Math.floor(ms / 1000));
  const hours = Math.floor(seconds / 3600);
  const minutes = Math.floor(seconds / 60);
  return (hours ? hours + ":" + two(minutes % 60) : minutes) + ":" + two(seconds % 60);
}
