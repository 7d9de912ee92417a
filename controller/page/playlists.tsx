// Playlists and stations: those that are kept here, and the playlist files of the music folders.
import type { ComponentChildren } from "preact";
import { useRef } from "preact/hooks";
import { use_answer, use_pages } from "./answers";
import { Awaited } from "./awaited";
import { texts } from "./language";
import { Icon, IconButton } from "./parts";
import { play } from "./state";
import { attempt, request, say } from "./talk";
import { say_with_undo } from "./undo";

export interface PlaylistRow { name: string; what: string }
interface StationRow extends PlaylistRow { url: string }

// `children`: what else can be done with it.
export function Playlist({ list, children }: { list: PlaylistRow; children?: ComponentChildren }) {
  const { name, what } = list;
  return <li>
    <button type="button" class="open" onClick={() => play(what)}><Icon name="queue" /><span class="grow">{name}</span></button>
    <IconButton icon="add" label={texts.add_title(name)} onClick={() => play(what, { where: "end" })} />
    {children}
  </li>;
}

function path_of(kind: "playlists" | "stations", name: string, what: string): string {
  return kind + "/" + encodeURIComponent(name) + "/" + what;
}

async function rename(kind: "playlists" | "stations", name: string): Promise<void> {
  const wanted = prompt(texts.another_name(name), name);
  if (wanted && wanted !== name && await attempt(() => request(path_of(kind, name, "rename"), { name: wanted }))) {
    say(texts.is_called(wanted));
  }
}

async function remove(kind: "playlists" | "stations", name: string, take_back: () => Promise<unknown>): Promise<void> {
  if (await attempt(() => request(path_of(kind, name, "delete"), {}))) say_with_undo(texts.list_removed(name), take_back);
}

function Changes({ kind, name, take_back }: { kind: "playlists" | "stations"; name: string; take_back: () => Promise<unknown> }) {
  return <>
    <IconButton icon="rename" label={texts.rename(name)} onClick={() => rename(kind, name)} />
    <IconButton icon="remove" label={texts.remove_list(name)} onClick={() => remove(kind, name, take_back)} />
  </>;
}

function AddStation() {
  const form = useRef<HTMLFormElement>(null);
  const add = async (event: Event) => {
    event.preventDefault();
    const fields = Object.fromEntries(new FormData(form.current as HTMLFormElement));
    if (!await attempt(() => request("stations", fields))) return;
    say(texts.station_added(String(fields.name)));
    form.current?.reset();
  };
  return <form ref={form} class="row wrap" onSubmit={add}>
    <input class="grow" name="name" required placeholder={texts.station_name} aria-label={texts.station_name} />
    <input class="grow" name="url" type="url" required placeholder="http://…" aria-label={texts.station_address} />
    <button><Icon name="add" />{texts.add}</button>
  </form>;
}

function Own() {
  const stations = use_answer<{ stations: StationRow[] }>("stations");
  const playlists = use_answer<{ playlists: PlaylistRow[] }>("playlists");
  if (!stations.answer || !playlists.answer) return <Awaited failure={stations.failure || playlists.failure} />;
  const [radios, own] = [stations.answer.stations, playlists.answer.playlists];
  return <>
    <ul class="list"><li>
      <a class="open button" href="#library/favourites"><Icon name="heart" />{texts.favourites}</a>
    </li></ul>
    <h2>{texts.stations}</h2>
    <ul class="list">{radios.map((each) => <Playlist key={each.name} list={each}>
      <Changes kind="stations" name={each.name} take_back={() => request("stations", { name: each.name, url: each.url })} />
    </Playlist>)}</ul>
    <AddStation />
    <h2>{texts.playlists}</h2>
    {own.length === 0 && <p class="quiet">{texts.no_playlists}</p>}
    <ul class="list">{own.map((each) => <Playlist key={each.name} list={each}>
      <Changes kind="playlists" name={each.name} take_back={() => request(path_of("playlists", each.name, "restore"), {})} />
    </Playlist>)}</ul>
  </>;
}

function Files() {
  const { items, is_all, end } = use_pages<PlaylistRow>("library/playlists", "playlists");
  if (!items || items.length === 0) return null;
  return <>
    <h2>{texts.in_music_folders}</h2>
    <ul class="list">
      {items.map((each) => <Playlist key={each.what} list={each} />)}
      {!is_all && <li ref={end} class="quiet">…</li>}
    </ul>
  </>;
}

export function Playlists() {
  return <><Own /><Files /></>;
}

// Asks for a name, and keeps a device's queue under it.
export async function save_queue(device: { id: string }): Promise<void> {
  const name = prompt(texts.save_queue_as);
  if (name && await attempt(() => request("playlists", { name, device: device.id }))) say(texts.saved_as(name));
}
