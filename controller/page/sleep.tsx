// The sleep timer of the device that is shown: when it is paused.
import { useEffect, useState } from "preact/hooks";
import { counted, texts } from "./language";
import { Icon } from "./parts";
import { Sheet } from "./sheet";
import type { Device } from "./state";
import { is_connected, set_sleep, sleeps_in_ms } from "./state";

const kMinutes = [15, 30, 45, 60, 90];
const kMinuteMs = 60000;

// Told anew each minute.
function use_minutes(device: Device): number {
  const [, tell] = useState(0);
  const left = sleeps_in_ms(device);
  useEffect(() => {
    if (left <= 0 || !is_connected.value) return undefined;
    const timer = setTimeout(() => tell((count) => count + 1), (left - 1) % kMinuteMs + 2);
    return () => clearTimeout(timer);
  });
  return Math.max(1, Math.ceil(left / kMinuteMs));
}

export function SleepTimer({ device }: { device: Device }) {
  const minutes = use_minutes(device);
  const { sleep } = device;
  const says = !sleep ? texts.sleep : sleep.at_end ? texts.sleeps_at_end : counted(texts.sleeps_in, minutes);
  return <Sheet title={texts.pause_the_music} opener={(open) =>
    <button type="button" disabled={!device.connected} aria-pressed={Boolean(sleep)} onClick={open}>
      <Icon name="sleep" />{says}</button>}>
    {(close) => {
      const choose = (wish: object) => () => {
        close();
        void set_sleep(device, wish);
      };
      const can_end = Boolean(device.track?.duration_ms);
      return <p class="choices">
        {kMinutes.map((each) =>
          <button key={each} type="button" onClick={choose({ minutes: each })}>{counted(texts.in_minutes, each)}</button>)}
        {can_end && <button type="button" onClick={choose({ at_end: true })}>{texts.at_end}</button>}
        {sleep && <button type="button" onClick={choose({ minutes: 0 })}>{texts.no_sleep}</button>}
      </p>;
    }}
  </Sheet>;
}
