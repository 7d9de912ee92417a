// The library: albums, artists, folders, and the search.
import type { JSX } from "preact";
import { useEffect, useRef } from "preact/hooks";
import { WakeWith } from "./alarms";
import { use_answer, use_pages } from "./answers";
import { Awaited } from "./awaited";
import { Heart } from "./heart";
import { counted, number_text, sum_text, texts } from "./language";
import { Cover, Icon, IconButton, Two } from "./parts";
import { place, rename_place, wants_search } from "./places";
import type { PlaylistRow } from "./playlists";
import { Playlist, Playlists } from "./playlists";
import { library, play, selected } from "./state";
import { attempt, request, time_text } from "./talk";

const kTypingMs = 150;

interface AlbumRow { id: number; title: string; artist: string; year: number }
interface ArtistRow { id: number; name: string }
interface TrackRow { id: number; title: string; artist: string; disc: number; number: number; duration_ms: number; favourite: boolean }

function Album({ album }: { album: AlbumRow }) {
  return <li><a href={"#library/album/" + album.id}>
    <Cover path={"cover/" + album.id} />
    <span class="cut">{album.title || texts.untitled}</span>
    <span class="cut quiet">{album.artist || album.year || " "}</span>
  </a></li>;
}

function Artist({ artist }: { artist: ArtistRow }) {
  return <li><a class="open button" href={"#library/artist/" + artist.id}>{artist.name || texts.unknown}</a></li>;
}

type ShelfKind = "genre" | "composer";

function Shelf({ kind, name }: { kind: ShelfKind; name: string }) {
  return <li><a class="open button" href={"#library/" + kind + "/" + encodeURIComponent(name)}>{name}</a></li>;
}

// `context`: all of what a press plays, from this track on.
function Track({ track, number, context }: { track: TrackRow; number?: number; context: [what: string, start: number] }) {
  const [what, start] = context;
  const is_now = selected.value?.track?.track_id === track.id;
  return <li class={is_now ? "now" : undefined} aria-current={is_now ? "true" : undefined}>
    {number !== undefined && <span class="number">{number || ""}</span>}
    <button type="button" class="open" onClick={() => play(what, { start })}>
      <Two first={track.title} second={track.artist} />
      <span class="quiet">{track.duration_ms ? time_text(track.duration_ms) : ""}</span>
    </button>
    <Heart what={"track:" + track.id} title={track.title} is_one={track.favourite} />
    <IconButton icon="add" label={texts.add_title(track.title)} onClick={() => play("track:" + track.id, { where: "end" })} />
  </li>;
}

function Actions({ what }: { what: string }) {
  return <div class="row wrap">
    <button type="button" class="main" onClick={() => play(what)}><Icon name="play" />{texts.play}</button>
    <button type="button" onClick={() => play(what, { where: "next" })}>{texts.play_next}</button>
    <button type="button" onClick={() => play(what, { where: "end" })}>{texts.add_to_queue}</button>
    <WakeWith what={what} />
  </div>;
}

const kFound = ["playlists", "artists", "albums", "tracks"] as const;
type FoundKind = typeof kFound[number];
type Kind = FoundKind | "genres" | "composers";
type Row = AlbumRow & ArtistRow & TrackRow & PlaylistRow;
const kMakers: Record<Kind, (row: Row) => JSX.Element> = {
  artists: (row) => <Artist key={row.id} artist={row} />,
  albums: (row) => <Album key={row.id} album={row} />,
  tracks: (row) => <Track key={row.id} track={row} context={["track:" + row.id, 0]} />,
  playlists: (row) => <Playlist key={row.what} list={row} />,
  genres: (row) => <Shelf key={row.name} kind="genre" name={row.name} />,
  composers: (row) => <Shelf key={row.name} kind="composer" name={row.name} />,
};

function EndlessList({ path, of }: { path: string; of: Kind }) {
  const { items, is_all, failure, end } = use_pages<Row>(path, of);
  if (!items) return <Awaited failure={failure} />;
  if (items.length === 0) return <p class="quiet">{texts.there_are_none}</p>;
  return <ul class={of === "albums" ? "grid" : "list"}>
    {items.map(kMakers[of])}
    {!is_all && <li ref={end} class="quiet">…</li>}
  </ul>;
}

const kLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";

// The ways into a long list: where it begins. `place`: its address without a letter.
function Letters({ place: list, from }: { place: string; from: string }) {
  return <div class="strip">{["", ...kLetters].map((letter) =>
    <a key={letter} class="button" href={list + letter} aria-current={letter === from ? "true" : undefined}>{letter || texts.all_letters}</a>)}</div>;
}

function Albums({ order, from }: { order: string; from: string }) {
  const path = "library/albums?sort=" + order + "&from=" + encodeURIComponent(from);
  return <>
    <select aria-label={texts.order} value={order} onChange={(event) => { location.hash = "#library/albums/" + event.currentTarget.value; }}>
      {Object.entries(texts.orders).map(([name, title]) => <option key={name} value={name}>{title}</option>)}
    </select>
    {(order === "title" || order === "artist") && <Letters place={"#library/albums/" + order + "/"} from={from} />}
    <EndlessList key={path} path={path} of="albums" />
  </>;
}

function Artists({ from }: { from: string }) {
  return <><Letters place="#library/artists/" from={from} /><EndlessList key={from} path={"library/artists?from=" + encodeURIComponent(from)} of="artists" /></>;
}

function OneShelf({ kind, name }: { kind: ShelfKind; name: string }) {
  return <>
    <h2 class="first">{name}</h2>
    <Actions what={kind + ":" + name} />
    <h2>{texts.tabs.albums}</h2>
    <EndlessList path={"library/albums?sort=artist&" + kind + "=" + encodeURIComponent(name)} of="albums" />
  </>;
}

function EmptyLibrary() {
  return <p>{library.value.folders === 0 ? texts.no_folders : texts.no_music}</p>;
}

// The first of what was found of a kind, and the way to the rest.
function Section({ kind, found, text }: { kind: FoundKind; found: Found; text: string }) {
  const rows = found[kind] as Row[];
  if (rows.length === 0) return null;
  const total = found.total?.[kind] ?? rows.length;
  return <>
    <h2>{texts.found[kind]}</h2>
    <ul class={kind === "albums" ? "grid" : "list"}>{rows.map(kMakers[kind])}</ul>
    {total > rows.length && <p><a class="button" href={"#library/all/" + kind + "/" + encodeURIComponent(text)}>
      {counted(texts.show_all, total)}</a></p>}
  </>;
}

function Search({ text }: { text: string }) {
  // A radio, or a playlist file of the controller's machine.
  if (/^(https?:\/\/|\/.)/i.test(text)) return <><p class="address">{text}</p><Actions what={text} /></>;
  return <SearchWords text={text} />;
}

interface Found {
  artists: ArtistRow[]; albums: AlbumRow[]; tracks: TrackRow[]; playlists: PlaylistRow[]; total?: Record<FoundKind, number>;
}

function SearchWords({ text }: { text: string }) {
  const { answer, failure } = use_answer<Found>("library/search?q=" + encodeURIComponent(text));
  // What was found before stays until there is something newer.
  const before = useRef<Found | undefined>(undefined);
  before.current = answer ?? before.current;
  const found = before.current;
  if (!found || failure) return <Awaited failure={failure} />;
  if (found.artists.length + found.albums.length + found.tracks.length + found.playlists.length === 0) {
    return <p>{texts.nothing_found}</p>;
  }
  return <>
    {kFound.map((kind) => <Section key={kind} kind={kind} found={found} text={text} />)}
  </>;
}

// Its discs have headings, where there are several.
function AlbumTracks({ id, tracks }: { id: string; tracks: TrackRow[] }) {
  const discs = new Set(tracks.map((track) => track.disc));
  const is_first = (at: number) => discs.size > 1 && tracks[at]?.disc !== tracks[at - 1]?.disc;
  return <ul class="list in-order">{tracks.map((track, at) => <>
    {is_first(at) && <li key={"disc-" + track.disc} class="heading"><h3>{track.disc ? texts.disc(number_text(track.disc)) : texts.without_disc}</h3></li>}
    <Track key={track.id} track={track} number={track.number} context={["album:" + id, at]} />
  </>)}</ul>;
}

function OneAlbum({ id }: { id: string }) {
  const { answer, failure } = use_answer<AlbumRow & { tracks: TrackRow[]; favourite: boolean }>("library/albums/" + id);
  if (!answer) return <Awaited failure={failure} />;
  return <>
    <div class="head">
      <Cover path={"cover/" + id} />
      <div class="grow">
        <div class="row">
          <h2 class="first grow">{answer.title || texts.untitled}</h2>
          <Heart what={"album:" + id} title={answer.title || texts.untitled} is_one={answer.favourite} />
        </div>
        <p class="quiet">{[answer.artist, answer.year || "", sum_text(answer.tracks)].filter(Boolean).join(" · ")}</p>
        <Actions what={"album:" + id} />
      </div>
    </div>
    <AlbumTracks id={id} tracks={answer.tracks} />
  </>;
}

function OneArtist({ id }: { id: string }) {
  const { answer, failure } = use_answer<{ artist: string; albums: AlbumRow[] }>("library/albums?artist=" + id);
  if (!answer) return <Awaited failure={failure} />;
  return <>
    <h2 class="first">{answer.artist || texts.unknown}</h2>
    <Actions what={"artist:" + id} />
    <h2>{texts.tabs.albums}</h2>
    <ul class="grid">{answer.albums.map((each) => <Album key={each.id} album={each} />)}</ul>
  </>;
}

function Favourites() {
  return <>
    <h2 class="first">{texts.favourites}</h2>
    <Actions what="favourites:tracks" />
    <h2>{texts.found.tracks}</h2>
    <EndlessList path="library/favourites?kind=tracks" of="tracks" />
    <h2>{texts.found.albums}</h2>
    <EndlessList path="library/favourites?kind=albums" of="albums" />
  </>;
}

interface FolderPage {
  id: number; parent: number; name: string; folders: ArtistRow[]; tracks: TrackRow[];
  playlists?: PlaylistRow[];
}

function Folder({ id }: { id: string }) {
  const { answer, failure } = use_answer<FolderPage>("library/folders/" + id);
  if (!answer) return <Awaited failure={failure} />;
  return <>
    {answer.id !== 0 && <p><a class="button" href={"#library/folders/" + answer.parent}><Icon name="back" />{answer.name}</a></p>}
    {answer.tracks.length > 0 && <Actions what={"folder:" + answer.id} />}
    <ul class="list">
      {answer.folders.map((each) => <li key={"f" + each.id}>
        <a class="open button" href={"#library/folders/" + each.id}><Icon name="folder" /><span class="grow">{each.name}</span></a>
        <IconButton icon="play" label={texts.play_title(each.name)} onClick={() => play("folder:" + each.id)} />
      </li>)}
      {(answer.playlists ?? []).map((each) => <Playlist key={each.what} list={each} />)}
      {answer.tracks.map((each) => <Track key={each.id} track={each} number={each.number} context={["track:" + each.id, 0]} />)}
    </ul>
  </>;
}

function Unreadable() {
  const { answer, failure } = use_answer<{ files: { path: string; failure: string }[] }>("library/unreadable");
  if (!answer) return <Awaited failure={failure} />;
  return <>
    <h2 class="first">{texts.unreadable}</h2>
    <ul class="list">{answer.files.map((file) => <li key={file.path}>
      <div class="grow address"><div>{file.path}</div><div class="quiet">{file.failure}</div></div>
    </li>)}</ul>
  </>;
}

function ScanLine() {
  const { failure, scanning, tracks, unreadable, seen } = library.value;
  if (failure) return <p class="warn">{failure}</p>;
  if (scanning) {
    return <div role="status">
      <p class="quiet">{counted(texts.reading, seen ?? 0)}</p>
      <progress aria-label={texts.reading_folders} />
    </div>;
  }
  return <p class="row wrap quiet">
    <span>{counted(texts.tracks_in_library, tracks ?? 0)}</span>
    {unreadable ? <a class="button" href="#library/unreadable">{counted(texts.of_them_unreadable, unreadable)}</a> : null}
  </p>;
}

function SearchField({ text }: { text: string }) {
  const field = useRef<HTMLInputElement>(null);
  const timer = useRef<ReturnType<typeof setTimeout>>(undefined);
  useEffect(() => {
    if (field.current && field.current !== document.activeElement) field.current.value = text;
  }, [text]);
  useEffect(() => () => clearTimeout(timer.current), []);
  const is_wanted = wants_search.value;
  useEffect(() => {
    if (!is_wanted) return;
    field.current?.focus();
    wants_search.value = false;
  }, [is_wanted]);
  const typed = () => {
    clearTimeout(timer.current);
    timer.current = setTimeout(() => {
      const words = field.current?.value.trim() ?? "";
      rename_place(words ? "#library/search/" + encodeURIComponent(words) : "#library");
    }, kTypingMs);
  };
  return <input ref={field} type="search" placeholder={texts.search} autocomplete="off" onInput={typed}
                defaultValue={text} aria-label={texts.search_label} />;
}

function Content({ kind, words }: { kind: string; words: string[] }) {
  const id = words[1] ?? "0";
  switch (kind) {
    case "album": return <OneAlbum key={id} id={id} />;
    case "artist": return <OneArtist key={id} id={id} />;
    case "artists": return <Artists from={words[1] ?? ""} />;
    case "genres":
    case "composers": return <EndlessList key={kind} path={"library/" + kind} of={kind} />;
    case "genre":
    case "composer": return <OneShelf key={id} kind={kind} name={words.slice(1).join("/")} />;
    case "folders": return <Folder key={id} id={id} />;
    case "all": {
      const of = kFound.find((each) => each === words[1]) ?? "tracks";
      const path = "library/search?kind=" + of + "&q=" + encodeURIComponent(words.slice(2).join("/"));
      return <EndlessList key={path} path={path} of={of} />;
    }
    case "search": return <Search text={words.slice(1).join("/")} />;
    case "favourites": return <Favourites />;
    case "playlists": return <Playlists />;
    case "unreadable": return <Unreadable />;
    default: return library.value.tracks || library.value.scanning
      ? <Albums order={kind === "albums" && words[1] || "title"} from={words[2] ?? ""} /> : <EmptyLibrary />;
  }
}

const kInTabs: Record<string, string> = { favourites: "playlists" };

export function Library() {
  const { words } = place.value;
  const kind = words[0] ?? "albums";
  const text = kind === "search" || kind === "all" ? words.slice(kind === "all" ? 2 : 1).join("/") : "";
  const device = selected.value;
  return <>
    <div class="row title wrap">
      <h1 tabIndex={-1} class="grow">{texts.screens.library}</h1>
      <a class="button" href="#devices"><Icon name="speaker" /><span id="target">{device ? texts.on_device(device.name) : texts.on_none}</span></a>
      <IconButton icon="scan" label={texts.read_again} onClick={() => attempt(() => request("library/scan", {}))} />
    </div>
    <SearchField text={text} />
    <div class="tabs">{Object.entries(texts.tabs).map(([name, title]) =>
      <a key={name} class="button" href={"#library/" + name} aria-current={(kInTabs[kind] ?? kind) === name ? "page" : undefined}>{title}</a>)}</div>
    <div id="found"><Content kind={kind} words={words} /></div>
    <ScanLine />
  </>;
}
