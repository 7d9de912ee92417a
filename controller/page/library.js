// The library: albums, artists, folders, and the search.
import { attempt, cover, element, icon, icon_button, request, time_text } from "./elements.js";
import { play, selected, state } from "./state.js";

const kPage = 100;
const kTypingMs = 150;
const kTabs = [["albums", "Albums"], ["artists", "Artists"], ["folders", "Folders"]];

function album_tile(album) {
  return element("li", {}, element("a", { href: "#library/album/" + album.id },
    cover("cover/" + album.id), element("span", { class: "cut" }, album.title || "Untitled"),
    element("span", { class: "cut quiet" }, album.artist || (album.year ? String(album.year) : " "))));
}

function artist_row(artist) {
  return element("li", {}, element("a", { class: "open button", href: "#library/artist/" + artist.id },
    element("span", { class: "cut" }, artist.name || "Unknown")));
}

// `context` plays all of the list from this track on.
function track_row(track, number, context) {
  return element("li", {},
    element("span", { class: "number" }, number ? String(number) : ""),
    element("button", { type: "button", class: "open", onclick: () => play(context.what, { start: context.start }) },
      element("span", { class: "grow" }, element("span", { class: "cut" }, track.title),
              element("span", { class: "cut quiet" }, track.artist)),
      element("span", { class: "quiet" }, track.duration_ms ? time_text(track.duration_ms) : "")),
    icon_button("add", "Add " + track.title + " to the queue",
                () => play("track:" + track.id, { where: "end" })));
}

function actions(what) {
  return element("div", { class: "row wrap" },
    element("button", { type: "button", class: "main", onclick: () => play(what) }, icon("play"), "Play"),
    element("button", { type: "button", onclick: () => play(what, { where: "next" }) }, "Play next"),
    element("button", { type: "button", onclick: () => play(what, { where: "end" }) }, "Add to queue"));
}

// Asks for the next page when the list's end comes into view.
function endless(list, path, key, make) {
  const end = element("li", { class: "quiet" }, "…");
  list.append(end);
  let first = 0;
  const watch = new IntersectionObserver(async (entries) => {
    if (!entries.some((entry) => entry.isIntersecting)) return;
    watch.unobserve(end);
    await attempt(async () => {
      const page = (await request(path + "?first=" + first + "&count=" + kPage))[key];
      end.before(...page.map(make));
      first += page.length;
      if (page.length < kPage) end.remove();
      else watch.observe(end);
    });
  });
  watch.observe(end);
  return list;
}

function empty_library() {
  if (state.library.folders === 0) {
    return element("p", {}, "No music folder was named. Start the controller with --music and a folder.");
  }
  return state.library.tracks === 0 && !state.library.scanning
    ? element("p", {}, "No music was found in the folders that were named. Put some there: it appears here by itself.") : null;
}

// Where a press on "Play" will be heard.
export function target_text() {
  const device = selected();
  return device ? "On " + device.name : "No device";
}

// Stays in place while the rest of the screen changes.
export function scan_line() {
  const library = state.library;
  if (library.failure) return element("p", { class: "warn" }, library.failure);
  if (!library.scanning) {
    return element("p", { class: "row wrap quiet" }, (library.tracks || 0) + " tracks in the library", library.unreadable
      ? element("a", { class: "button", href: "#library/unreadable" }, library.unreadable + " of them can't be read") : "");
  }
  return element("div", { role: "status" }, element("p", { class: "quiet" },
    "The folders are being read: " + library.seen + " files so far"), element("progress", { "aria-label": "Reading the folders" }));
}

function search_field(text) {
  const field = element("input", { type: "search", value: text, placeholder: "Search, or an http:// address",
                                   "aria-label": "Search the library, or a radio's address or a playlist's path",
                                   autocomplete: "off", "data-key": "search" });
  let timer = 0;
  field.addEventListener("input", () => {
    clearTimeout(timer);
    timer = setTimeout(() => {
      const words = field.value.trim();
      history.replaceState(null, "", words ? "#library/search/" + encodeURIComponent(words) : "#library");
      window.dispatchEvent(new HashChangeEvent("hashchange"));
    }, kTypingMs);
  });
  return field;
}

async function search(text) {
  // A radio, or a playlist file of the controller's machine.
  if (/^(https?:\/\/|\/.)/i.test(text)) {
    return [element("p", {}, text), actions(text)];
  }
  const found = await request("library/search?q=" + encodeURIComponent(text));
  const section = (title, list) => list.childElementCount ? [element("h2", {}, title), list] : [];
  const parts = [
    ...section("Artists", element("ul", { class: "list" }, found.artists.map(artist_row))),
    ...section("Albums", element("ul", { class: "grid" }, found.albums.map(album_tile))),
    ...section("Tracks", element("ul", { class: "list" },
      found.tracks.map((track) => track_row(track, 0, { what: "track:" + track.id, start: 0 })))),
  ];
  return parts.length ? parts : [element("p", {},
    "Nothing in the library has all of these words. Beginnings of words are enough; fewer find more.")];
}

async function album(id) {
  const page = await request("library/albums/" + id);
  return [element("div", { class: "head" }, cover("cover/" + id),
    element("div", { class: "grow" }, element("h2", { class: "first" }, page.title || "Untitled"),
      element("p", { class: "quiet" }, [page.artist, page.year || ""].filter(Boolean).join(" · ")),
      actions("album:" + id))),
    element("ul", { class: "list" }, page.tracks.map((track, start) =>
      track_row(track, track.number, { what: "album:" + id, start })))];
}

async function artist(id) {
  const page = await request("library/albums?artist=" + id);
  return [element("h2", { class: "first" }, page.artist || "Unknown"), actions("artist:" + id), element("h2", {}, "Albums"),
          element("ul", { class: "grid" }, page.albums.map(album_tile))];
}

async function folder(id) {
  const page = await request("library/folders/" + id);
  const rows = page.folders.map((each) => element("li", {},
    element("a", { class: "open button", href: "#library/folders/" + each.id }, icon("folder"),
            element("span", { class: "cut" }, each.name)),
    icon_button("play", "Play " + each.name, () => play("folder:" + each.id))));
  return [
    page.id ? element("p", {}, element("a", { class: "button", href: "#library/folders/" + page.parent },
                                       icon("back"), page.name)) : null,
    page.tracks.length ? actions("folder:" + page.id) : null,
    element("ul", { class: "list" }, rows, page.tracks.map((track) =>
      track_row(track, track.number, { what: "track:" + track.id, start: 0 }))),
  ].filter(Boolean);
}

async function unreadable() {
  const page = await request("library/unreadable");
  return [element("h2", { class: "first" }, "Files that can't be read"),
          element("ul", { class: "list" }, page.files.map((file) => element("li", {},
            element("div", { class: "grow" }, element("div", {}, file.path),
                    element("div", { class: "quiet" }, file.failure)))))];
}

// `words`: what follows "#library/".
export async function show_library(main, words, is_current) {
  const kind = words[0] || "albums";
  const text = kind === "search" ? words.slice(1).join("/") : "";
  let content = main.querySelector("#found");
  if (!content || (kind === "search") !== Boolean(main.querySelector("#found[data-search]"))) {
    const focused = document.activeElement && document.activeElement.dataset.key === "search";
    content = element("div", { id: "found", "data-search": kind === "search" });
    const field = focused ? document.activeElement : search_field(text);
    const scan = element("div", { id: "scan" }, scan_line());
    if (focused) {  // the field keeps its keyboard
      main.querySelector("#found").replaceWith(content);
    } else {
      main.replaceChildren(
        element("div", { class: "row title" }, element("h1", { tabindex: -1, class: "grow" }, "Library"),
                element("a", { class: "button", href: "#devices" }, icon("speaker"),
                        element("span", { id: "target", class: "cut" }, target_text())),
                icon_button("scan", "Read the folders again", () => attempt(() => request("library/scan", {})))),
        field, element("div", { class: "tabs" }), content, scan);
    }
  }
  const field = main.querySelector("input[type=search]");
  if (field !== document.activeElement) field.value = text;
  main.querySelector(".tabs").replaceChildren(...kTabs.map(([name, title]) =>
    element("a", { class: "button", href: "#library/" + name,
                   "aria-current": kind === name ? "page" : undefined }, title)));
  const pages = { album: () => album(words[1]), artist: () => artist(words[1]),
                  folders: () => folder(words[1] || 0), search: () => search(text),
                  unreadable };
  if (Object.hasOwn(pages, kind)) {
    await attempt(async () => {
      const parts = await pages[kind]();
      if (is_current()) content.replaceChildren(...parts);
    });
  } else if (kind === "artists") {
    content.replaceChildren(endless(element("ul", { class: "list" }), "library/artists", "artists", artist_row));
  } else {
    content.replaceChildren(empty_library() ||
      endless(element("ul", { class: "grid" }), "library/albums", "albums", album_tile));
  }
}
