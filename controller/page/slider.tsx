// A slider for a thumb: only a drag that begins sideways moves it, and from where it was. A mouse
// takes it where it presses; keys and screen readers have the browser's own slider inside.
import { useRef, useState } from "preact/hooks";
import { texts } from "./language";
import { IconButton } from "./parts";
import type { Device } from "./state";
import { command, steer } from "./state";

const kSidewaysPx = 6;

interface Props {
  label: string; value: number; max: number; text?: string; disabled?: boolean; id?: string; volume_of?: string;
  tells_late?: boolean;  // only what it is let go at counts
  takes_taps?: boolean;  // a tap of a finger moves it there
  step_of_key?: (key: string) => number | undefined;
  on_value: (value: number) => void;
}

interface Grip { x: number; y: number; from: number; is_dragging: boolean; last: number }

export function Slider(properties: Props) {
  const { label, value, max, text, disabled, id, tells_late, takes_taps, step_of_key, on_value } = properties;
  const grip = useRef<Grip | null>(null);
  const [held, set_held] = useState<number | null>(null);
  const shown = held ?? value;

  const bounded = (wanted: number) => Math.round(Math.min(max, Math.max(0, wanted)));
  const share_of = (frame: HTMLElement, px: number) => px / frame.getBoundingClientRect().width * max;
  const at = (frame: HTMLElement, x: number) => bounded(share_of(frame, x - frame.getBoundingClientRect().left));
  const hold = (now: Grip, wanted: number) => {
    set_held(wanted);
    if (wanted !== now.last && !tells_late) on_value(wanted);
    now.last = wanted;
  };

  const take = (event: PointerEvent & { currentTarget: HTMLElement }) => {
    if (disabled || !event.isPrimary || event.button !== 0) return;
    const is_mouse = event.pointerType === "mouse";
    grip.current = { x: event.clientX, y: event.clientY, from: value, is_dragging: is_mouse, last: value };
    if (!is_mouse) return;
    event.preventDefault();
    event.currentTarget.querySelector("input")?.focus();
    event.currentTarget.setPointerCapture(event.pointerId);
    grip.current.from = at(event.currentTarget, event.clientX);
    hold(grip.current, grip.current.from);
  };
  const move = (event: PointerEvent & { currentTarget: HTMLElement }) => {
    const now = grip.current;
    if (!now) return;
    const [x, y] = [event.clientX - now.x, event.clientY - now.y];
    if (!now.is_dragging) {
      if (Math.max(Math.abs(x), Math.abs(y)) < kSidewaysPx) return;
      if (Math.abs(y) >= Math.abs(x)) {
        grip.current = null;
        return;
      }
      now.is_dragging = true;
      now.x = event.clientX;
      return;
    }
    hold(now, bounded(now.from + share_of(event.currentTarget, x)));
  };
  const let_go = (event: PointerEvent & { currentTarget: HTMLElement }) => {
    const now = grip.current;
    grip.current = null;
    set_held(null);
    if (!now) return;
    if (now.is_dragging && tells_late && event.type === "pointerup") on_value(now.last);
    else if (!now.is_dragging && takes_taps && event.type === "pointerup") on_value(at(event.currentTarget, event.clientX));
  };
  const press_key = (event: KeyboardEvent) => {
    const step = step_of_key?.(event.key);
    if (step === undefined) return;
    event.preventDefault();
    on_value(bounded(shown + step));
  };

  return <span class="slider" onPointerDown={take} onPointerMove={move} onPointerUp={let_go} onPointerCancel={let_go}>
    <input type="range" min={0} max={max} value={shown} disabled={disabled} id={id} aria-label={label}
           aria-valuetext={text} data-volume={properties.volume_of} onKeyDown={press_key}
           onInput={(event) => on_value(Number(event.currentTarget.value))} />
  </span>;
}

export function VolumeRow({ device }: { device: Device }) {
  const is_known = device.volume !== undefined;
  const muted = !device.muted;
  return <div class="row volume">
    <IconButton icon={device.muted ? "muted" : "volume"} label={device.muted ? texts.unmute : texts.mute}
                aria-pressed={Boolean(device.muted)} onClick={() => command(device, "mute", { muted }, { muted })} />
    <Slider label={texts.volume_of(device.name)} value={device.volume ?? 0} max={100} disabled={!is_known}
            volume_of={device.id} on_value={(volume) => steer(device, "volume", { volume })} />
    <span class="number">{is_known ? device.volume : "–"}</span>
  </div>;
}
