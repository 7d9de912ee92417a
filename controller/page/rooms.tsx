// What concerns several rooms: their volumes together, and the music that goes from one to another.
import { useRef } from "preact/hooks";
import { texts } from "./language";
import { doing_text, Icon, title_of, Two } from "./parts";
import { Sheet } from "./sheet";
import { Slider } from "./slider";
import type { Device } from "./state";
import { devices, move_music, steer } from "./state";

const kLoudest = 100;

type Volumes = ReadonlyMap<string, number>;  // by device

// In the same proportion to each other as in `mix`, the loudest at `wanted`.
function in_proportion(mix: Volumes, wanted: number): Volumes {
  const most = Math.max(...mix.values());
  return new Map([...mix].map(([id, volume]) => [id, most > 0 ? Math.round(volume * wanted / most) : wanted]));
}

// Turned down to nothing and up again each room is what it was: the proportion is taken anew only once a
// room's volume is not what was sent from here.
export function AllRooms() {
  const mix = useRef<Volumes>(new Map());
  const sent = useRef<Volumes>(new Map());
  const rooms = devices.value.filter((device) => device.connected && device.volume !== undefined);
  if (rooms.length < 2) return null;
  const now: Volumes = new Map(rooms.map((device) => [device.id, device.volume ?? 0]));
  const loudest = Math.max(...now.values());
  const turn = (wanted: number) => {
    const is_same = sent.current.size === now.size && [...now].every(([id, volume]) => sent.current.get(id) === volume);
    if (!is_same) mix.current = now;
    sent.current = in_proportion(mix.current, wanted);
    for (const room of rooms) {
      const volume = sent.current.get(room.id) ?? 0;
      if (volume !== room.volume) void steer(room, "volume", { volume });
    }
  };
  return <article class="card" aria-label={texts.all_rooms}>
    <h2>{texts.all_rooms}</h2>
    <div class="row volume">
      <Icon name="volume" />
      <Slider id="all-rooms" label={texts.volume_of_all} value={loudest} max={kLoudest} on_value={turn} />
      <span class="number">{loudest}</span>
    </div>
  </article>;
}

function is_reached(device: Device): boolean {
  return device.state !== "gone" && device.state !== "asking";
}

function Room({ device, on_choice }: { device: Device; on_choice: () => void }) {
  const says = device.track ? texts.instead_of(title_of(device)) : doing_text(device)[0];
  return <li><button type="button" class="open" onClick={on_choice}>
    <Icon name="speaker" /><Two first={device.name} second={says} />
  </button></li>;
}

export function MoveMusic({ device }: { device: Device }) {
  const others = devices.value.filter((each) => each.id !== device.id && is_reached(each));
  return <Sheet title={texts.move_music_to} opener={(open) =>
    <button type="button" disabled={!device.connected} onClick={open}><Icon name="speaker" />{texts.move_to}</button>}>
    {(close) => <>
      <ul class="list">{others.map((each) => <Room key={each.id} device={each} on_choice={() => {
        close();
        void move_music(device, each);
      }} />)}</ul>
      {others.length === 0 && <p>{texts.no_other_device}</p>}
    </>}
  </Sheet>;
}
