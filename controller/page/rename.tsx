// What a device is called here.
import { useRef } from "preact/hooks";
import { texts } from "./language";
import { IconButton } from "./parts";
import { Sheet } from "./sheet";
import type { Device } from "./state";
import { rename } from "./state";

function Field({ device, close }: { device: Device; close: () => void }) {
  const field = useRef<HTMLInputElement>(null);
  const save = (event: Event) => {
    event.preventDefault();
    close();
    void rename(device, field.current?.value ?? "");
  };
  return <form onSubmit={save}>
    <p><input ref={field} aria-label={texts.name} defaultValue={device.name} maxLength={60} autocomplete="off" /></p>
    <p class="quiet">{texts.calls_itself(device.announced_name)}</p>
    <p><button type="submit" class="main">{texts.save}</button></p>
  </form>;
}

export function Rename({ device }: { device: Device }) {
  return <Sheet title={texts.rename(device.name)} opener={(open) =>
    <IconButton icon="edit" label={texts.rename(device.name)} onClick={open} />}>
    {(close) => <Field device={device} close={close} />}
  </Sheet>;
}
