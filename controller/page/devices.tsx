// The devices: what each plays, its volume; which one the other screens are about.
import { Alarms, NextAlarm } from "./alarms";
import { texts } from "./language";
import { Cover, Doing, has_music, IconButton, PlayButton, title_of, Two } from "./parts";
import { Rename } from "./rename";
import { AllRooms } from "./rooms";
import { VolumeRow } from "./slider";
import type { Device } from "./state";
import { alarms, devices, is_connected, select, selected } from "./state";
import { request } from "./talk";

function Card({ device, is_selected }: { device: Device; is_selected: boolean }) {
  return <article class={"card" + (is_selected ? " selected" : "")} aria-label={device.name}>
    <div class="row wrap">
      <div class="grow">
        <h2>{device.name}</h2>
        <p class="quiet">{[device.brand, device.model].filter(Boolean).join(" ")}</p>
      </div>
      <Alarms device={device} />
      <Rename device={device} />
      <button type="button" aria-pressed={is_selected} onClick={() => select(device.id)}
              aria-label={(is_selected ? texts.chosen_device : texts.choose_device)(device.name)}>
        {is_selected ? texts.chosen : texts.choose}</button>
    </div>
    <Doing device={device} />
    <NextAlarm device={device} />
    {has_music(device) && <div class={"row" + (device.is_pending ? " pending" : "")}>
      <Cover path={device.track?.cover} size="small" />
      <Two first={title_of(device)} second={device.track?.artist} />
      {device.track && <PlayButton device={device} is_named />}
    </div>}
    {device.connected && <VolumeRow device={device} />}
  </article>;
}

// Not seen since the controller runs, and to wake somebody.
function Unseen() {
  const all = new Map(alarms.value.map(({ device, device_name }) => [device, device_name]));
  for (const { id } of devices.value) all.delete(id);
  return <>{[...all].map(([id, name]) => <article key={id} class="card" aria-label={name}>
    <div class="row">
      <h2 class="grow">{name}</h2>
      <Alarms device={{ id, name }} />
    </div>
    <p class="warn">{texts.absent}</p>
    <NextAlarm device={{ id, name }} />
  </article>)}</>;
}

export function Devices() {
  const all = devices.value;
  return <>
    <div class="row title">
      <h1 tabIndex={-1} class="grow">{texts.screens.devices}</h1>
      <IconButton icon="scan" label={texts.ask_all} onClick={() => request("devices/look", {}).catch(() => {})} />
    </div>
    <AllRooms />
    <div class="cards">
      {all.map((device) => <Card key={device.id} device={device} is_selected={device.id === selected.value?.id} />)}
      {is_connected.value && <Unseen />}
    </div>
    {all.length === 0 && <p>{is_connected.value ? texts.none_found : texts.nothing_known}</p>}
  </>;
}
