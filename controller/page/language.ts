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

const numbers = new Intl.NumberFormat(locale);
const forms = new Intl.PluralRules(locale);

export function number_text(number: number): string {
  return numbers.format(number);
}

// In the form that the language has for so many.
export function counted(text: Counted, number: number): string {
  return (text[forms.select(number)] ?? text.other).replace("#", () => number_text(number));
}

export function clock_text(time: number): string {
  return new Date(time).toLocaleTimeString(locale);
}
