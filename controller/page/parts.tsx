// Small things that every screen uses: icons, buttons, covers, what a device is doing.
import type { ComponentChildren, JSX } from "preact";
import { useEffect, useState } from "preact/hooks";
import type { Device } from "./state";
import { is_paused, is_running, position_ms, toggle_play } from "./state";

export function Icon({ name }: { name: string }) {
  return <svg aria-hidden="true"><use href={"#i-" + name} /></svg>;
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

const kQualities: Record<string, string> = {
  CD: "16 bit / 48 kHz", HI_RES_LEVEL_1: "24 bit / 96 kHz", HI_RES_LEVEL_2: "24 bit / 192 kHz",
  HI_RES_LEVEL_3: "24 bit / 768 kHz" };

function gone_text(device: Device): string {
  if (device.status === "absent") return "Not on the network";
  return (device.failure ? "Can't be reached: " + device.failure + "." : "It does not answer.") +
         " Is it switched on and in this network?";
}

type Tone = "quiet" | "warn";
const kTexts: Record<string, (device: Device) => [string, Tone]> = {
  free: (device) => ["Free" + (kQualities[device.quality] ? ", up to " + kQualities[device.quality] : ""), "quiet"],
  other: () => ["Another controller plays here. Playing something takes it over.", "warn"],
  asked: (device) => ["Asked to play " + title_of(device) + " …", "quiet"],
  opening: (device) => ["Opening " + title_of(device) + " …", "quiet"],
  playing: () => ["Playing", "quiet"],
  paused: () => ["Paused", "quiet"],
  stopped: () => ["Stopped", "quiet"],
  silent: () => ["Silent: it says that it plays, but nothing moves", "warn"],
  gone: (device) => [gone_text(device), "warn"],
};

export function doing_text(device: Device): [string, Tone] {
  return (kTexts[device.state] ?? (() => ["Is being reached …", "quiet"]))(device);
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

export function PlayButton({ device, label = "", ...properties }: { device: Device; label?: string; class?: string }) {
  const paused = is_paused(device);
  return <IconButton icon={paused ? "play" : "pause"} label={(paused ? "Play" : "Pause") + label} data-toggle
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
