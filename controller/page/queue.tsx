// The queue: rows made as they come into view, moved by finger, mouse and key.
import type { RefObject } from "preact";
import { useContext, useEffect, useLayoutEffect, useRef, useState } from "preact/hooks";
import Sortable from "sortablejs";
import { TrackHeart, use_favourites } from "./heart";
import { number_text, sum_text, texts } from "./language";
import type { Entry } from "./order";
import { follow, move, order } from "./order";
import { Cover, IconButton, IsBeside, Title, Two } from "./parts";
import { place } from "./places";
import { NothingHere } from "./playing";
import { save_queue } from "./playlists";
import type { Device } from "./state";
import { command, selected, version } from "./state";
import { say } from "./talk";
import { take_away } from "./undo";
import { row_height, use_rows } from "./windowed";

const kEdgePx = 130;  // so near the screen's end a row in hand has the list move on
const kEdgeOfSmallPx = 45;  // of a list that scrolls by itself
const kEdgeSpeed = 14;
const kFromTop = 1 / 3;  // where on the screen the current track is at first

interface Hand { entry: Entry; to: number }  // the row in hand, and the place that it would get

// SortableJS lifts the row, carries it and scrolls. Where it would land follows from the finger's height
// alone, as most rows are not there, and the list stays as the page has made it.
function use_hand(list: RefObject<HTMLUListElement | null>, device: Device, items: Entry[]) {
  const [hand, set_hand] = useState<Hand | null>(null);
  const now = useRef({ device, items });
  now.current = { device, items };
  useEffect(() => {
    const rows = list.current;
    if (!rows) return undefined;
    let y = 0;
    let entry: Entry | undefined;
    let at: Hand | null = null;
    const show = (next: Hand | null) => set_hand(at = next);
    const under = () => {
      const count = now.current.items.length;
      const at = Math.floor((y - rows.getBoundingClientRect().top) / row_height(rows, count));
      return Math.max(0, Math.min(count - 1, at));
    };
    const carry = (event: Event) => {
      if (event instanceof PointerEvent) y = event.clientY;
      const to = under();
      if (entry && to !== at?.to) show({ entry, to });
    };
    const listen = (is_on: boolean) => {
      for (const [target, name] of [[document, "pointermove"], [window, "scroll"]] as const) {
        if (is_on) target.addEventListener(name, carry, true);
        else target.removeEventListener(name, carry, true);
      }
    };
    const sortable = Sortable.create(rows, {
      sort: false, handle: ".drag", draggable: "li", forceFallback: true, fallbackOnBody: true, fallbackTolerance: 4,
      fallbackClass: "in-hand", scrollSensitivity: rows.closest(".scroller") ? kEdgeOfSmallPx : kEdgePx, scrollSpeed: kEdgeSpeed, bubbleScroll: true,
      onStart: (event) => {
        entry = now.current.items.find((each) => String(each.item) === event.item.dataset.item);
        y = event.item.getBoundingClientRect().top + event.item.offsetHeight / 2;
        listen(true);
      },
      onEnd: (event: Sortable.SortableEvent & { originalEvent?: Event }) => {
        listen(false);
        const is_dropped = at !== null && !event.originalEvent?.type.endsWith("cancel");
        if (at && is_dropped) move_to(now.current.device, now.current.items, at.entry, at.to);
        show(null);
        // It swallows the next click, as a mouse sends one with a drop. A finger does not: here is one.
        setTimeout(() => document.dispatchEvent(new MouseEvent("click")));
      },
    });
    return () => {
      listen(false);
      sortable.destroy();
    };
  }, [list, device.id]);
  return hand;
}

function move_to(device: Device, items: Entry[], entry: Entry, to: number): void {
  if (!items.some((each) => each.item === entry.item)) return;  // another phone took it away meanwhile
  const rest = items.filter((each) => each.item !== entry.item);
  if (items[to]?.item !== entry.item) void move(device, entry.item, rest[to]?.item ?? null);
}

interface RowProps {
  device: Device; entry: Entry; at: number; count: number; is_in_hand: boolean; favourites: number[] | undefined;
  on_key: (event: KeyboardEvent) => void;
}

function Row({ device, entry, at, count, is_in_hand, favourites, on_key }: RowProps) {
  const { item, title } = entry;
  const is_now = device.item === item;
  return <li class={"queue-row" + (is_now ? " now" : "") + (is_in_hand ? " lifted" : "")} data-item={item}
             aria-current={is_now ? "true" : undefined} aria-setsize={count} aria-posinset={at + 1}
             style={{ top: `calc(${at} * var(--row))` }}>
    <button type="button" class="open" onClick={() => command(device, "queue_jump", { item }, { item })}>
      <Cover path={entry.cover} size="small" />
      <Two first={title} second={entry.artist} />
    </button>
    <TrackHeart track={entry} favourites={favourites} />
    <IconButton icon="remove" label={texts.remove(title)}
                onClick={() => take_away(device, "command", { command: "queue_remove", items: [item] }, texts.removed(title))} />
    <IconButton icon="handle" label={texts.move(title)} class="plain drag" onKeyDown={on_key} />
  </li>;
}

// Rows that can be seen, and those that are held: by a finger, or by the keyboard.
function rows_of(items: Entry[], { first, end }: { first: number; end: number }, held: (number | undefined)[]) {
  const rows = items.slice(first, end).map((entry, at) => ({ entry, at: first + at }));
  for (const item of held) {
    const at = item === undefined ? -1 : items.findIndex((each) => each.item === item);
    const entry = items[at];
    if (entry && (at < first || at >= end)) rows.push({ entry, at });
  }
  return rows;
}

// With the row in hand at the place it would get; also when another phone has just taken it away.
function with_hand(items: Entry[], hand: Hand | null): Entry[] {
  if (!hand) return items;
  const rest = items.filter((each) => each.item !== hand.entry.item);
  rest.splice(hand.to, 0, hand.entry);
  return rest;
}

function Rows({ device, items }: { device: Device; items: Entry[] }) {
  const list = useRef<HTMLUListElement>(null);
  const hand = use_hand(list, device, items);
  const [focused, set_focused] = useState<number>();
  const moved_by_key = useRef(false);
  const is_placed = useRef(false);
  const opened_at = useRef<number | undefined>(undefined);  // how far it was scrolled then
  const is_beside = useContext(IsBeside);
  const favourites = use_favourites();
  const shown = with_hand(items, hand);
  const rows = use_rows(list, shown.length);

  // It opens at the current track, once that is read, unless it was left or is scrolled elsewhere.
  useLayoutEffect(() => {
    if (!list.current || is_placed.current) return;
    const at = items.findIndex((entry) => entry.item === device.item);
    const scroller = list.current.closest(".scroller") ?? document.documentElement;
    opened_at.current ??= scroller.scrollTop;
    const is_new = (is_beside || place.value.scroll === undefined) && scroller.scrollTop === opened_at.current;
    is_placed.current = at >= 0 || !is_new;
    if (at < 1 || !is_new) return;
    const top = list.current.getBoundingClientRect().top - (is_beside ? scroller.getBoundingClientRect().top : 0);
    scroller.scrollTop += top + at * row_height(list.current, items.length) - scroller.clientHeight * kFromTop;
  }, [items]);
  // A row that has moved elsewhere in the document loses the keyboard.
  useLayoutEffect(() => {
    const handle = moved_by_key.current && list.current?.querySelector<HTMLElement>(`[data-item="${focused}"] .drag`);
    if (!handle) return;
    moved_by_key.current = false;
    handle.focus();
    handle.scrollIntoView({ block: "nearest" });
  });

  const press_key = (entry: Entry, at: number) => (event: KeyboardEvent) => {
    const to = at + ({ ArrowUp: -1, ArrowDown: 1 }[event.key] ?? 0);
    if (to === at || to < 0 || to >= items.length) return;
    event.preventDefault();
    moved_by_key.current = true;
    move_to(device, items, entry, to);
    say(texts.moved(entry.title, number_text(to + 1), number_text(items.length)));
  };
  const take_focus = (event: FocusEvent) => {
    const row = (event.target as HTMLElement).closest<HTMLElement>("li");
    set_focused(row?.dataset.item === undefined ? undefined : Number(row.dataset.item));
  };
  return <ul ref={list} class="list rows" style={{ height: `calc(${shown.length} * var(--row))` }} onFocusIn={take_focus}>
    {rows_of(shown, rows, [hand?.entry.item, focused]).map(({ entry, at }) =>
      <Row key={entry.item} device={device} entry={entry} at={at} count={shown.length}
           is_in_hand={hand?.entry.item === entry.item} favourites={favourites} on_key={press_key(entry, at)} />)}
  </ul>;
}

export function Queue() {
  const device = selected.value;
  const { device: known, items } = order.value;
  void version.value;  // while a queue is being read, each message tells of more of it
  useEffect(() => { if (device) follow(device); });
  const is_beside = useContext(IsBeside);
  if (!device || !device.track || !device.queue_length) {
    return is_beside ? null : <NothingHere title={texts.screens.queue} device={device} />;
  }
  return <>
    <div class="row wrap title">
      <Title class="grow">{texts.screens.queue}</Title>
      <button type="button" aria-label={texts.save_queue} onClick={() => save_queue(device)}>{texts.save}</button>
      {device.queue_length > 1 && <button type="button" onClick={() =>
        take_away(device, "clear", {}, texts.cleared)}>{texts.clear}</button>}
    </div>
    <p class="quiet">{device.name} · {sum_text(known === device.id ? items : [], device.queue_length)}</p>
    {known === device.id && items.length > 0 ? <Rows key={device.id} device={device} items={items} />
      : <p class="quiet" role="status">{texts.being_read}</p>}
  </>;
}
