// Small things that every screen uses: icons, buttons, covers, what a device is doing.
import type { ComponentChildren, JSX } from "preact";
import { createContext } from "preact";
import { useContext, useEffect, useState } from "preact/hooks";
import { texts } from "./language";
import type { Device } from "./state";
import { is_paused, is_running, position_ms, toggle_play } from "./state";

export function Icon({ name }: { name: string }) {
  return <svg aria-hidden="true"><use href={"#i-" + name} /></svg>;
}

// Whether it stands beside the screen that was asked for.
export const IsBeside = createContext(false);

// Of a screen; focused when it is gone to.
export function Title({ children, class: kind }: { children: ComponentChildren; class?: string }) {
  return useContext(IsBeside) ? <h2 class={kind}>{children}</h2> : <h1 tabIndex={-1} class={kind}>{children}</h1>;
}

type ButtonProps = Omit<JSX.IntrinsicElements["button"], "icon"> & { icon: string; label: string };

export function IconButton({ icon, label, class: kind = "plain", ...properties }: ButtonProps) {
  return <button type="button" class={kind} aria-label={label} title={label} {...properties}><Icon name={icon} /></button>;
}

// `path`: "cover/ID", or empty. A picture that does not come leaves the icon.
export function Cover({ path, size = "" }: { path?: string; size?: "" | "small" | "large" }) {
  const [failed, set_failed] = useState("");
  return <span class={"cover " + size}>
    <Icon name="library" />
    {path && failed !== path && <img key={path} src={path + "?size=" + (size === "large" ? 1000 : 320)} alt=""
                                     loading="lazy" onError={() => set_failed(path)} />}
  </span>;
}

export function Two({ first, second }: { first: ComponentChildren; second?: ComponentChildren }) {
  return <span class="grow"><span class="cut">{first}</span><span class="cut quiet">{second}</span></span>;
}

// What is heard of it, or was asked for.
export function title_of(device: Device): string {
  return device.state === "asked" && device.asked ? device.asked.title : device.track?.title ?? device.asked?.title ?? "";
}

export function has_music(device: Device): boolean {
  return device.track !== undefined || device.state === "asked" || device.state === "opening";
}

// Bits, and kHz.
const kQualities: Record<string, [number, number]> = {
  CD: [16, 48], HI_RES_LEVEL_1: [24, 96], HI_RES_LEVEL_2: [24, 192], HI_RES_LEVEL_3: [24, 768] };

function free_text({ quality }: Device): string {
  const [bits, khz] = kQualities[quality] ?? [];
  return bits ? texts.free_up_to(`${bits} ${texts.bit} / ${khz} kHz`) : texts.free;
}

function gone_text(device: Device): string {
  if (device.status === "absent") return texts.absent;
  return device.failure ? texts.not_reached(device.failure) : texts.no_answer;
}

type Tone = "quiet" | "warn";
const kTexts: Record<string, (device: Device) => [string, Tone]> = {
  free: (device) => [free_text(device), "quiet"],
  other: () => [texts.other_plays, "warn"],
  asked: (device) => [texts.asked_to_play(title_of(device)), "quiet"],
  opening: (device) => [texts.opening(title_of(device)), "quiet"],
  playing: () => [texts.plays, "quiet"],
  paused: () => [texts.paused, "quiet"],
  stopped: () => [texts.stopped, "quiet"],
  silent: () => [texts.silent, "warn"],
  gone: (device) => [gone_text(device), "warn"],
};

export function doing_text(device: Device): [string, Tone] {
  return (kTexts[device.state] ?? (() => [texts.being_reached, "quiet"]))(device);
}

// `brief`: not what the button that plays and pauses says too.
export function Doing({ device, brief = false }: { device: Device; brief?: boolean }) {
  const [text, tone] = doing_text(device);
  const is_said = !brief || (device.state !== "playing" && device.state !== "paused");
  return <>
    {is_said && <p class={tone + " doing"}>{text}</p>}
    {device.problem && <p class="warn problem">{device.problem}</p>}
  </>;
}

// `is_named`: its label says of which device.
export function PlayButton({ device, is_named, ...properties }: { device: Device; is_named?: boolean; class?: string }) {
  const paused = is_paused(device);
  const label = is_named ? (paused ? texts.play_on : texts.pause_on)(device.name) : paused ? texts.play : texts.pause;
  return <IconButton icon={paused ? "play" : "pause"} label={label} data-toggle
                     disabled={device.state === "gone"} onClick={() => toggle_play(device)} {...properties} />;
}

// Where its music is, told anew each second while it plays and can be seen.
export function use_position(device: Device): number {
  const [, tell] = useState(0);
  const runs = is_running(device);
  const now = position_ms(device);
  useEffect(() => {
    if (!runs) return undefined;
    const again = () => { if (!document.hidden) tell((count) => count + 1); };
    const timer = setTimeout(again, 1000 - now % 1000 + 5);
    document.addEventListener("visibilitychange", again);
    return () => {
      clearTimeout(timer);
      document.removeEventListener("visibilitychange", again);
    };
  });
  return now;
}
