// The page: which screen is shown, and what stands around it.
import type { ComponentChildren } from "preact";
import { render } from "preact";
import { useErrorBoundary, useLayoutEffect, useRef } from "preact/hooks";
import { Devices } from "./devices";
import { offer_keys } from "./keys";
import { clock_text, texts } from "./language";
import { Library } from "./library";
import { Icon, IsBeside } from "./parts";
import type { Screen } from "./places";
import { go_and_search, is_wide, kScreens as kNames, place } from "./places";
import { Mini, Playing } from "./playing";
import { Queue } from "./queue";
import { is_connected, known_at, refusal, selected, start, toggle_play } from "./state";
import { said, say } from "./talk";
import { Undo } from "./undo";

const kScreens: Record<Screen, { icon: string; Shown: () => ComponentChildren }> = {
  devices: { icon: "speaker", Shown: Devices },
  library: { icon: "library", Shown: Library },
  queue: { icon: "queue", Shown: Queue },
  playing: { icon: "play", Shown: Playing },
};

function Banner() {
  if (is_connected.value) return null;
  const at = known_at.value;
  return <p id="banner" role="status">
    {at === null && !refusal.value && texts.connecting}
    {refusal.value}{refusal.value && " "}
    {at !== null && texts.known_at(clock_text(at))}
  </p>;
}

// It takes its room from what is above: who was at the page's end stays there.
function Toast() {
  const text = said.value;
  const line = useRef<HTMLParagraphElement>(null);
  useLayoutEffect(() => {
    const { scrollHeight, clientHeight } = document.documentElement;
    const height = line.current?.offsetHeight ?? 0;
    if (scrollHeight - clientHeight - window.scrollY <= height + 1) window.scrollTo(0, scrollHeight);
  }, [text !== ""]);
  return <p id="toast" role="status" aria-live="polite" ref={line} onClick={() => say("")}>{text}<Undo /></p>;
}

function Nav({ screen }: { screen: Screen }) {
  return <nav aria-label={texts.list_of_screens}>{kNames.map((name) =>
    <a key={name} href={"#" + name} aria-current={name === screen ? "page" : undefined}>
      <Icon name={kScreens[name].icon} />{texts.screens[name]}</a>)}</nav>;
}

// A screen that fails is said to have; the others, the connection and what plays go on.
function Guarded({ children }: { children: ComponentChildren }) {
  const [failure, again] = useErrorBoundary((error) => console.error(error));
  if (!failure) return <>{children}</>;
  return <>
    <h1 tabIndex={-1}>{texts.screen_failed}</h1>
    <p><button type="button" onClick={again}>{texts.show_it_again}</button></p>
  </>;
}

const kWhatPlays: Screen[] = ["playing", "queue"];
const kBeside: Record<Screen, Screen[]> = { devices: kWhatPlays, library: kWhatPlays, queue: ["playing"], playing: ["queue"] };

function Beside({ names }: { names: Screen[] }) {
  return <aside aria-label={texts.what_plays}><IsBeside.Provider value>{names.map((name) => {
    const { Shown } = kScreens[name];
    return <div key={name} class={name === "queue" ? "scroller" : undefined}><Guarded><Shown /></Guarded></div>;
  })}</IsBeside.Provider></aside>;
}

function Page() {
  const { screen, entry, scroll } = place.value;
  const main = useRef<HTMLElement>(null);
  const last = useRef(screen);
  const { Shown } = kScreens[screen];
  document.title = (screen === "devices" ? "" : texts.screens[screen] + " · ") + "Nuvio Connect";
  useLayoutEffect(() => {
    // The queue finds its own place when it is new.
    if (scroll !== undefined || screen !== "queue") window.scrollTo(0, scroll ?? 0);
    if (last.current !== screen) main.current?.querySelector("h1")?.focus({ preventScroll: true });
    last.current = screen;
  }, [entry]);
  return <>
    <a class="skip" href="#main" onClick={(event) => {
      event.preventDefault();
      main.current?.focus();
    }}>{texts.to_the_content}</a>
    <div class="columns">
      <main id="main" tabIndex={-1} ref={main}><Guarded key={screen}><Shown /></Guarded></main>
      {is_wide.value && <Beside names={kBeside[screen]} />}
    </div>
    <div class="below">
      <Banner />
      <Toast />
      {screen !== "playing" && !is_wide.value && <Mini />}
      <Nav screen={screen} />
    </div>
  </>;
}

// By key, where nothing that has the focus takes it: Space plays and pauses, "/" searches.
function press_key(event: KeyboardEvent): void {
  const on = event.target as HTMLElement;
  if (event.ctrlKey || event.altKey || event.metaKey || on.closest("input, select, button, a")) return;
  const device = selected.value;
  if (event.key === " " && device?.track && device.state !== "gone") void toggle_play(device);
  else if (event.key === "/") go_and_search();
  else return;
  event.preventDefault();
}

start();
offer_keys();
document.addEventListener("keydown", press_key);
const app = document.getElementById("app") as HTMLElement;
app.replaceChildren();
render(<Page />, app);
if ("serviceWorker" in navigator) navigator.serviceWorker.register("worker.js").catch(() => {});
