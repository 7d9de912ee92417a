// Alarms: the music that a device wakes people with.
import { useRef, useState } from "preact/hooks";
import { use_answer } from "./answers";
import { number_text, texts, weekday_text } from "./language";
import { Icon, IconButton, Two } from "./parts";
import type { PlaylistRow } from "./playlists";
import { Sheet } from "./sheet";
import type { Alarm } from "./state";
import { alarms, selected } from "./state";
import { attempt, request } from "./talk";
import { say_with_undo } from "./undo";

const kDays = ["mon", "tue", "wed", "thu", "fri", "sat", "sun"];
const kFavourites = "favourites:tracks";
const kDayMs = 86400000;
const kVolumes = [10, 20, 30, 40, 50, 60, 70, 80, 90, 100];

type Room = { id: string; name: string };
type Wish = Pick<Alarm, "time" | "days" | "what" | "title" | "volume"> & { id?: number };

function path_of({ id }: Room): string {
  return "devices/" + encodeURIComponent(id) + "/alarms";
}

function of(device: Room): Alarm[] {
  return alarms.value.filter((alarm) => alarm.device === device.id);
}

function days_text({ days }: Wish): string {
  const all = days.map((day) => kDays.indexOf(day));
  const [first = 0, last = 0] = [all[0], all.at(-1)];
  if (all.length === 0) return texts.once;
  if (all.length === kDays.length) return texts.daily;
  return last - first === all.length - 1 && all.length > 2 ? weekday_text(first) + "–" + weekday_text(last)
    : all.map(weekday_text).join(" ");
}

function title_of({ what, title }: Wish): string {
  return what === kFavourites ? texts.favourites : title || texts.this_music;
}

// Its day too, where that is not within the next 24 hours.
function when_text({ time, in_ms = 0 }: Alarm): string {
  if (in_ms < kDayMs) return time;
  return weekday_text((new Date(Date.now() + in_ms).getDay() + 6) % 7) + " " + time;
}

// On the device's card: the next one, and what went wrong the last time.
export function NextAlarm({ device }: { device: Room }) {
  const all = of(device);
  const [next] = all.filter((alarm) => alarm.in_ms !== undefined).sort((a, b) => (a.in_ms ?? 0) - (b.in_ms ?? 0));
  return <>
    {next && <p class="quiet wakes">{texts.wakes_at(when_text(next))}</p>}
    {all.map(({ id, failure }) => failure && <p key={id} class="warn">{failure}</p>)}
  </>;
}

function Days({ days, on_days }: { days: string[]; on_days: (days: string[]) => void }) {
  const toggle = (day: string) => on_days(kDays.filter((each) => days.includes(each) !== (each === day)));
  return <div class="days" role="group" aria-label={texts.days}>{kDays.map((day, at) =>
    <button key={day} type="button" aria-pressed={days.includes(day)} onClick={() => toggle(day)}>{weekday_text(at)}</button>)}</div>;
}

// What it is already, favourites, and what is kept here under a name.
function Music({ wish }: { wish: Wish }) {
  const stations = use_answer<{ stations: PlaylistRow[] }>("stations").answer?.stations ?? [];
  const playlists = use_answer<{ playlists: PlaylistRow[] }>("playlists").answer?.playlists ?? [];
  const named = [...stations, ...playlists];
  const own = wish.what !== kFavourites && !named.some(({ what }) => what === wish.what);
  return <select name="what" aria-label={texts.music}>
    {own && <option value={wish.what} selected>{title_of(wish)}</option>}
    <option value={kFavourites}>{texts.favourites}</option>
    {named.map(({ name, what }) => <option key={what} value={what} selected={what === wish.what}>{name}</option>)}
  </select>;
}

function Volume({ volume }: Wish) {
  const all = volume === undefined || kVolumes.includes(volume) ? kVolumes : [volume, ...kVolumes];
  return <select name="volume" aria-label={texts.volume}>
    <option value="">{texts.volume + ": " + texts.volume_as_it_is}</option>
    {all.map((each) => <option key={each} value={each} selected={each === volume}>{texts.volume + ": " + number_text(each)}</option>)}
  </select>;
}

function Form({ device, wish, done }: { device: Room; wish: Wish; done: () => void }) {
  const form = useRef<HTMLFormElement>(null);
  const [days, set_days] = useState(wish.days);
  const [failure, set_failure] = useState("");
  const save = async (event: Event) => {
    event.preventDefault();
    const { time, what, volume } = Object.fromEntries(new FormData(form.current as HTMLFormElement));
    const body = { time, days, volume: volume === "" ? null : Number(volume), on: true,
                   what: wish.id !== undefined && what === wish.what ? undefined : what };
    try {
      await request(wish.id === undefined ? path_of(device) : "alarms/" + wish.id + "/change", body);
      done();
    } catch (error) {
      set_failure((error as Error).message);
    }
  };
  return <form ref={form} class="choices" onSubmit={save}>
    <input type="time" name="time" required aria-label={texts.time} defaultValue={wish.time} />
    <Days days={days} on_days={set_days} />
    <Music wish={wish} />
    <Volume {...wish} />
    {failure && <p class="warn" role="alert">{failure}</p>}
    <button type="submit" class="main">{texts.save}</button>
  </form>;
}

async function remove(device: Room, { id, time, days, what, volume, on }: Alarm): Promise<void> {
  if (!await attempt(() => request("alarms/" + id + "/delete", {}))) return;
  say_with_undo(texts.alarm_removed(time), () => request(path_of(device), { time, days, what, volume: volume ?? null, on }));
}

function Row({ device, alarm, edit, close }: { device: Room; alarm: Alarm; edit: () => void; close: () => void }) {
  const { id, time, on } = alarm;
  return <li>
    <button type="button" class="open" onClick={edit}>
      <Two first={time + " · " + days_text(alarm)} second={title_of(alarm)} />
    </button>
    <IconButton icon="alarm" label={texts.alarm_at(time)} aria-pressed={on}
                onClick={() => attempt(() => request("alarms/" + id + "/change", { on: !on }))} />
    <IconButton icon="remove" label={texts.remove_alarm(time)} onClick={() => {
      close();
      void remove(device, alarm);
    }} />
  </li>;
}

const kNew: Wish = { time: "07:00", days: [], what: kFavourites, title: "" };

function List({ device, close }: { device: Room; close: () => void }) {
  const [wish, edit] = useState<Wish | null>(null);
  if (wish) return <Form device={device} wish={wish} done={() => edit(null)} />;
  return <>
    <ul class="list">{of(device).map((alarm) =>
      <Row key={alarm.id} device={device} alarm={alarm} edit={() => edit(alarm)} close={close} />)}</ul>
    <p><button type="button" onClick={() => edit(kNew)}><Icon name="add" />{texts.new_alarm}</button></p>
  </>;
}

export function Alarms({ device }: { device: Room }) {
  return <Sheet title={texts.alarms_of(device.name)} opener={(open) =>
    <IconButton icon="alarm" label={texts.alarms_of(device.name)} onClick={open} />}>
    {(close) => <List device={device} close={close} />}
  </Sheet>;
}

// On the device that is shown.
export function WakeWith({ what }: { what: string }) {
  const device = selected.value;
  if (!device) return null;
  return <Sheet title={texts.wake_on(device.name)} opener={(open) =>
    <button type="button" onClick={open}><Icon name="alarm" />{texts.wake_with_this}</button>}>
    {(close) => <Form device={device} wish={{ ...kNew, what }} done={close} />}
  </Sheet>;
}
