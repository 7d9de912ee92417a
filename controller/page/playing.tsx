// What plays now, and the small line about it above the screens' names.
import { TrackHeart, use_favourites } from "./heart";
import { counted, number_text, texts } from "./language";
import { Cover, Doing, has_music, Icon, IconButton, PlayButton, Title, title_of, Two, use_position } from "./parts";
import { MoveMusic } from "./rooms";
import { SleepTimer } from "./sleep";
import { Slider, VolumeRow } from "./slider";
import type { Device, Track } from "./state";
import { command, devices, is_running, select, selected, steer } from "./state";
import { time_text } from "./talk";

const kLoops = ["off", "all", "one"] as const;
// By arrow and by page, in ms.
const kSeekSteps: Record<string, number> = { ArrowLeft: -5000, ArrowDown: -5000, ArrowRight: 5000, ArrowUp: 5000,
                                             PageDown: -30000, PageUp: 30000 };

export function NothingHere({ title, device }: { title: string; device: Device | null }) {
  return <>
    <Title>{title}</Title>
    {device ? <>
      <p>{texts.nothing_plays_on(device.name)}</p>
      <Doing device={device} />
    </> : <p>{texts.no_device}</p>}
    <p><a class="button" href={device ? "#library" : "#devices"}>
      {device ? texts.choose_music : texts.look_at_devices}</a></p>
  </>;
}

function format_text({ track, bit_exact }: Device): string {
  if (!track?.rate_hz || track.changed) return track?.changed ?? "";
  const channels = ({ 1: texts.mono, 2: texts.stereo } as Record<number, string>)[track.channels] ??
                   counted(texts.channels, track.channels);
  return [number_text(track.rate_hz / 1000) + " kHz", track.bits + " " + texts.bit, channels, bit_exact ? texts.bit_exact : ""]
    .filter(Boolean).join(" · ");
}

// Of a device that says so: whether the output took the samples of which the file has a sum.
function played_text({ title, verified }: { title: string; verified: string }): string {
  return texts.before(title) + " · " + (verified === "verified" ? texts.verified : texts.not_verified(verified));
}

// The address of a cover of the library names its album.
function AlbumLink({ track }: { track?: Track }) {
  const album = track?.cover.match(/^cover\/(\d+)$/)?.[1];
  return <>{album ? <a href={"#library/album/" + album}>{track?.album}</a> : track?.album}</>;
}

function Position({ device }: { device: Device }) {
  const length = device.track?.duration_ms ?? 0;
  const now = use_position(device);
  const text = time_text(now);
  const can_seek = Boolean(device.track?.seekable) && length > 0 && device.state !== "gone";
  return <div>
    <Slider id="seek" label={texts.position} value={Math.min(now, length)} max={Math.max(1, length)} text={text}
            disabled={!can_seek} tells_late takes_taps step_of_key={(key) => kSeekSteps[key]}
            on_value={(position_ms) => steer(device, "seek", { position_ms })} />
    <div class="times quiet">
      <span id="position">{text}</span>
      <span>{length > 0 ? time_text(length) : is_running(device) ? texts.live : ""}</span>
    </div>
  </div>;
}

function Transport({ device }: { device: Device }) {
  const loop = kLoops.find((each) => each === device.loop) ?? "off";
  const next_loop = kLoops[(kLoops.indexOf(loop) + 1) % kLoops.length];
  const is_gone = device.state === "gone";
  const shuffle = !device.shuffle;
  return <div class="transport">
    <IconButton icon="shuffle" label={texts.shuffle} aria-pressed={Boolean(device.shuffle)} disabled={is_gone}
                onClick={() => command(device, "shuffle", { shuffle }, { shuffle })} />
    <IconButton icon="previous" label={texts.previous} disabled={is_gone} onClick={() => command(device, "previous")} />
    <PlayButton device={device} class="main round" />
    <IconButton icon="next" label={texts.next} disabled={is_gone || !device.has_next} onClick={() => command(device, "next")} />
    <IconButton icon={loop === "one" ? "loop-one" : "loop"} label={texts.loop[loop]} disabled={is_gone}
                aria-pressed={loop !== "off"}
                onClick={() => command(device, "loop", { loop: next_loop }, { loop: next_loop })} />
  </div>;
}

function DeviceChoice({ device }: { device: Device }) {
  return <select aria-label={texts.device} value={device.id} onChange={(event) => select(event.currentTarget.value)}>
    {devices.value.map((each) => <option key={each.id} value={each.id}>{each.name}</option>)}
  </select>;
}

export function Playing() {
  const device = selected.value;
  const favourites = use_favourites();
  if (!device || !has_music(device)) {
    return <><NothingHere title={texts.screens.playing} device={device} />{device && <DeviceChoice device={device} />}</>;
  }
  const { track } = device;
  return <div class={"player" + (device.is_pending ? " pending" : "")}>
    <Cover path={track?.cover} size="large" />
    <div>
      <Title>{title_of(device)}</Title>
      <p>{track?.artist && <a href={"#library/search/" + encodeURIComponent(track.artist)}>{track.artist}</a>}</p>
      <p class="quiet"><AlbumLink track={track} /></p>
      <p class="quiet" id="format">{format_text(device)}</p>
      {device.played && <p class="quiet" id="played">{played_text(device.played)}</p>}
      <Doing device={device} brief />
    </div>
    {track && <Position device={device} />}
    {track && <Transport device={device} />}
    {device.connected && <VolumeRow device={device} />}
    <div class="row">
      <DeviceChoice device={device} />
      {track && <TrackHeart track={track} favourites={favourites} />}
      <IconButton icon="stop" label={texts.stop} disabled={device.state === "gone"} onClick={() => command(device, "stop")} />
    </div>
    <div class="row wrap"><MoveMusic device={device} /><SleepTimer device={device} /></div>
  </div>;
}

// Under all screens but that of what plays.
export function Mini() {
  const device = selected.value;
  if (!device || !has_music(device)) return null;
  const state = (texts.in_short as Record<string, string>)[device.state] ?? "";
  return <section id="mini" aria-label={texts.what_plays}>
    <Cover path={device.track?.cover} size="small" />
    <a class="grow" href="#playing">
      <Two first={title_of(device)} second={[device.name, state, device.track?.artist].filter(Boolean).join(" · ")} />
    </a>
    {device.track ? <PlayButton device={device} /> : <Icon name="speaker" />}
  </section>;
}
