// The lock screen and the keys of a headset: they show and drive the device that the page shows.
//
// Browsers give them to a page that itself plays something, from a press on, of five seconds at least.
// So it plays silence, made here: nothing is fetched, and "blob:" in the page's policy lets in only what
// its own script has made. Who only looks at the page keeps what his phone plays.
import { effect } from "@preact/signals";
import { title_of } from "./parts";
import type { Device } from "./state";
import { command, is_running, play_presses, position_ms, selected, steer, toggle_play } from "./state";

const kSilenceSeconds = 10;
const kRateHz = 8000;
const kHeadBytes = 44;
const kStepMs = 10000;

// A WAV file of 8 bit, mono.
function silence(): Blob {
  const length = kSilenceSeconds * kRateHz;
  const file = new DataView(new ArrayBuffer(kHeadBytes + length));
  const text = (at: number, letters: string) => {
    for (let i = 0; i < letters.length; i++) file.setUint8(at + i, letters.charCodeAt(i));
  };
  text(0, "RIFF");
  file.setUint32(4, kHeadBytes - 8 + length, true);
  text(8, "WAVEfmt ");
  [16, 0x10001, kRateHz, kRateHz, 0x80001].forEach((word, at) => file.setUint32(16 + at * 4, word, true));
  text(36, "data");
  file.setUint32(40, length, true);
  new Uint8Array(file.buffer, kHeadBytes).fill(0x80);
  return new Blob([file], { type: "audio/wav" });
}

function seek(device: Device, wanted_ms: number): void {
  const last = device.track?.duration_ms ?? 0;
  void steer(device, "seek", { position_ms: Math.round(Math.max(0, Math.min(last, wanted_ms))) });
}

type Key = (device: Device, details: MediaSessionActionDetails) => void;
const kKeys: Partial<Record<MediaSessionAction, Key>> = {
  play: (device) => { if (!is_running(device)) void toggle_play(device); },
  pause: (device) => { if (is_running(device)) void toggle_play(device); },
  stop: (device) => { void command(device, "stop"); },
  previoustrack: (device) => { void command(device, "previous"); },
  nexttrack: (device) => { void command(device, "next"); },
  seekbackward: (device) => seek(device, position_ms(device) - kStepMs),
  seekforward: (device) => seek(device, position_ms(device) + kStepMs),
  seekto: (device, { seekTime }) => seek(device, (seekTime ?? 0) * 1000),
};

function show(session: MediaSession, device: Device | null): void {
  const track = device?.track;
  session.playbackState = !device || !track ? "none" : is_running(device) ? "playing" : "paused";
  if (!device || !track) {
    session.metadata = null;
    return;
  }
  const artwork = track.cover ? [{ src: new URL(track.cover + "?size=320", document.baseURI).href }] : [];
  session.metadata = new MediaMetadata({ title: title_of(device), artist: track.artist, album: track.album, artwork });
  const duration = track.duration_ms / 1000;
  session.setPositionState(duration > 0 ? { duration, position: Math.min(duration, position_ms(device) / 1000) } : {});
}

export function offer_keys(): void {
  if (!("mediaSession" in navigator)) return;
  const session = navigator.mediaSession;
  let element: HTMLAudioElement | undefined;
  const sound = () => { element?.play().catch(() => {}); };
  for (const [name, press] of Object.entries(kKeys)) {
    try {
      session.setActionHandler(name as MediaSessionAction, (details) => {
        if (selected.value) press(selected.value, details);
      });
    } catch {
      // A browser without that key.
    }
  }
  effect(() => {
    if (play_presses.value === 0) return;
    if (!element) {
      element = new Audio(URL.createObjectURL(silence()));
      element.loop = true;
    }
    sound();
  });
  effect(() => {
    const device = selected.value;
    show(session, device);
    if (device && is_running(device)) sound();
    else if (device?.state !== "asked" && device?.state !== "opening") element?.pause();
  });
}
