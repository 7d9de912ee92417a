// Which rows of a long list of equally high ones are near what can be seen: only those are made.
import type { RefObject } from "preact";
import { useEffect, useLayoutEffect, useState } from "preact/hooks";

const kBeyond = 12;  // rows above and below what can be seen
const kStep = 6;  // they change by as many at a time

export interface Rows { first: number; end: number }

// The list's element is as high as all of its rows.
export function row_height(list: HTMLElement, count: number): number {
  return list.offsetHeight / Math.max(1, count);
}

function near(list: HTMLElement, count: number): Rows {
  const height = row_height(list, count) || 1;
  const above = -list.getBoundingClientRect().top / height;
  const first = Math.floor((above - kBeyond) / kStep) * kStep;
  const end = Math.ceil((above + window.innerHeight / height + kBeyond) / kStep) * kStep;
  return { first: Math.min(count, Math.max(0, first)), end: Math.max(0, Math.min(count, end)) };
}

export function use_rows(list: RefObject<HTMLElement | null>, count: number): Rows {
  const [rows, set_rows] = useState<Rows>({ first: 0, end: Math.min(count, 4 * kBeyond) });
  const look = () => {
    if (!list.current) return;
    const now = near(list.current, count);
    set_rows((before) => before.first === now.first && before.end === now.end ? before : now);
  };
  useLayoutEffect(look, [count]);
  useEffect(() => {
    const size = new ResizeObserver(look);
    if (list.current) size.observe(list.current);
    window.addEventListener("scroll", look, { passive: true, capture: true });
    window.addEventListener("resize", look);
    return () => {
      size.disconnect();
      window.removeEventListener("scroll", look, true);
      window.removeEventListener("resize", look);
    };
  }, [count]);
  return rows;
}
