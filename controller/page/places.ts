// Where the page is: the words of the address behind "#". Each entry of the browser's history knows how
// far it was scrolled, so that going back finds the place again.
import { signal } from "@preact/signals";

export const kScreens = ["devices", "library", "queue", "playing"] as const;
export type Screen = typeof kScreens[number];

// `scroll`: how far it was scrolled when it was left; undefined: it is new.
export interface Place { screen: Screen; words: string[]; entry: number; scroll: number | undefined }

const scrolled = new Map<number, number>();  // by entry
let last_entry = 0;

function decoded(word: string): string {
  try {
    return decodeURIComponent(word);
  } catch {
    return word;
  }
}

function here(): Place {
  const words = location.hash.slice(1).split("/").map(decoded);
  const screen = kScreens.find((each) => each === words[0]) ?? "devices";
  let entry = history.state?.entry as number | undefined;
  if (entry === undefined) {
    entry = last_entry + 1;
    history.replaceState({ entry }, "");
  }
  last_entry = Math.max(last_entry, entry);
  return { screen, words: words.slice(1), entry, scroll: scrolled.get(entry) };
}

// Where there is room, what plays stands beside the screens.
const wide = matchMedia("(min-width: 64rem)");
export const is_wide = signal(wide.matches);
wide.addEventListener("change", () => { is_wide.value = wide.matches; });

history.scrollRestoration = "manual";
export const place = signal(here());

// The search field takes the keyboard once it is there.
export const wants_search = signal(false);
export function go_and_search(): void {
  wants_search.value = true;
  if (place.value.screen !== "library") location.hash = "#library";
}

// Another address of the same place: what is typed makes no history.
export function rename_place(hash: string): void {
  history.replaceState(history.state, "", hash);
  place.value = here();
}

function note_scroll(): void {
  scrolled.set(place.value.entry, window.scrollY);
}

// A busy browser may tell of the last scrolling only when the place is another one.
window.addEventListener("hashchange", () => {
  note_scroll();
  place.value = here();
});
window.addEventListener("scroll", note_scroll, { passive: true });
