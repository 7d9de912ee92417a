// What concerns several rooms: the music goes from one to another.
import { doing_text, Icon, title_of, Two } from "./parts";
import { Sheet } from "./sheet";
import type { Device } from "./state";
import { devices, move_music } from "./state";

function is_reached(device: Device): boolean {
  return device.state !== "gone" && device.state !== "asking";
}

function Room({ device, on_choice }: { device: Device; on_choice: () => void }) {
  const says = device.track ? "Instead of " + title_of(device) : doing_text(device)[0];
  return <li><button type="button" class="open" aria-label={device.name} onClick={on_choice}>
    <Icon name="speaker" /><Two first={device.name} second={says} />
  </button></li>;
}

export function MoveMusic({ device }: { device: Device }) {
  const others = devices.value.filter((each) => each.id !== device.id && is_reached(each));
  return <Sheet title="Move the music to" opener={(open) =>
    <button type="button" disabled={!device.connected} onClick={open}><Icon name="speaker" />Move to …</button>}>
    {(close) => <>
      <ul class="list">{others.map((each) => <Room key={each.id} device={each} on_choice={() => {
        close();
        void move_music(device, each);
      }} />)}</ul>
      {others.length === 0 && <p>No other device is on the network.</p>}
    </>}
  </Sheet>;
}
