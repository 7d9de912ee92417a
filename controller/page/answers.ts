// Answers of the library, kept by their path: going back shows them at once, and a changed library has
// them asked for anew, each once.
import { computed } from "@preact/signals";
import { useCallback, useEffect, useRef, useState } from "preact/hooks";
import { is_connected, library } from "./state";
import { request } from "./talk";

const kKept = 60;  // answers
const kPage = 100;
const kMostOfOneAnswer = 500;

interface Kept { answer: unknown; revision: string }
const kept = new Map<string, Kept>();

function keep(path: string, answer: unknown, revision: string): void {
  kept.delete(path);
  kept.set(path, { answer, revision });
  for (const oldest of kept.keys()) {
    if (kept.size <= kKept) break;
    kept.delete(oldest);
  }
}

// Of the library, which stays while a scan runs (what it finds is shown once it is over), and of the lists
// that are kept here.
let settled: number | undefined;
const revision_shown = computed(() => {
  const { scanning, revision, lists } = library.value;
  if (!scanning || settled === undefined) settled = revision;
  return settled + "/" + lists;
});

// Has `load` run when the path or the library is another, until it has succeeded.
function use_loading<T>(path: string, load: (path: string) => Promise<T>) {
  const [failure, set_failure] = useState("");
  const [, redraw] = useState(0);
  const revision = revision_shown.value;
  const connected = is_connected.value;
  const found = kept.get(path);
  const is_fresh = found !== undefined && (found.revision === revision || !connected);
  useEffect(() => {
    let is_current = true;
    if (is_fresh) return undefined;
    load(path).then((answer) => {
      keep(path, answer, revision);
      if (is_current) set_failure("");
    }, (error: Error) => {
      if (is_current) set_failure(error.message);
    }).finally(() => {
      if (is_current) redraw((count) => count + 1);
    });
    return () => { is_current = false; };
  }, [path, revision, connected, is_fresh]);
  return { answer: found?.answer as T | undefined, failure: found ? "" : failure, redraw };
}

export function use_answer<T>(path: string): { answer?: T; failure: string } {
  return use_loading(path, (wanted) => request<T>(wanted));
}

interface Pages<T> { items: T[]; is_all: boolean }

async function read_page<T>(path: string, key: string, first: number, count: number): Promise<Pages<T>> {
  const answer = await request<Record<string, T[]>>(path + (path.includes("?") ? "&" : "?") + "first=" + first + "&count=" + count);
  const items = answer[key] ?? [];
  return { items, is_all: items.length < count };
}

async function read_again<T>(path: string, key: string, wanted: number): Promise<Pages<T>> {
  const all: Pages<T> = { items: [], is_all: false };
  do {
    const count = Math.min(kMostOfOneAnswer, Math.max(kPage, wanted - all.items.length));
    const page = await read_page<T>(path, key, all.items.length, count);
    all.items.push(...page.items);
    all.is_all = page.is_all;
  } while (!all.is_all && all.items.length < wanted);
  return all;
}

// A list that is read on as its end comes into view: `end` is the element there.
export function use_pages<T>(path: string, key: string) {
  const { answer, failure, redraw } = use_loading<Pages<T>>(path, (wanted) => {
    const before = kept.get(wanted)?.answer as Pages<T> | undefined;
    return read_again<T>(wanted, key, before?.items.length ?? 0);
  });
  const is_reading = useRef(false);
  const more = useCallback(async () => {
    const now = kept.get(path);
    if (!now || is_reading.current) return;
    const { items } = now.answer as Pages<T>;
    is_reading.current = true;
    try {
      const page = await read_page<T>(path, key, items.length, kPage);
      keep(path, { items: [...items, ...page.items], is_all: page.is_all }, now.revision);
    } finally {
      is_reading.current = false;
      redraw((count) => count + 1);
    }
  }, [path, key]);
  const end = useRef<HTMLLIElement>(null);
  useEffect(() => {
    if (!end.current || !answer || answer.is_all) return undefined;
    const watch = new IntersectionObserver((entries) => {
      if (entries.some((entry) => entry.isIntersecting)) more().catch(() => {});
    }, { rootMargin: "800px" });
    watch.observe(end.current);
    return () => watch.disconnect();
  }, [answer, more]);
  return { items: answer?.items, is_all: answer?.is_all ?? false, failure, end };
}
