// The language of the page: the first of the browser's that there is a table of, else English.
import type { Counted, Texts } from "./english";
import { english } from "./english";
import { german } from "./german";

const kTables: Record<string, Texts> = { en: english, de: german };

function table_of(locale: string): string {
  return locale.toLowerCase().split("-")[0] ?? "";
}

// With the region, for numbers and times.
const locale = navigator.languages.find((each) => Object.hasOwn(kTables, table_of(each))) ?? "en";
export const texts = kTables[table_of(locale)] ?? english;

document.documentElement.lang = table_of(locale);
document.documentElement.dir = texts.direction;

const weekdays = new Intl.DateTimeFormat(locale, { weekday: "short", timeZone: "UTC" });
const kFirstMonday = Date.UTC(2024, 0, 1);
const kDayMs = 86400000;
const numbers = new Intl.NumberFormat(locale);
const forms = new Intl.PluralRules(locale);

export function number_text(number: number): string {
  return numbers.format(number);
}

// Monday is 0.
export function weekday_text(day: number): string {
  return weekdays.format(kFirstMonday + day * kDayMs);
}

// In the form that the language has for so many.
export function counted(text: Counted, number: number): string {
  return (text[forms.select(number)] ?? text.other).replace("#", () => number_text(number));
}

// So many tracks, and how long they last where that is known of all.
export function sum_text(tracks: readonly { duration_ms: number }[], count = tracks.length): string {
  const text = counted(texts.tracks, count);
  if (count === 0 || tracks.length < count || tracks.some((track) => !track.duration_ms)) return text;
  const minutes = Math.max(1, Math.round(tracks.reduce((sum, track) => sum + track.duration_ms, 0) / 60_000));
  const hours = Math.floor(minutes / 60);
  return text + " · " + texts.lasts(hours ? number_text(hours) : "", number_text(minutes % 60));
}

export function clock_text(time: number): string {
  return new Date(time).toLocaleTimeString(locale);
}
