// Favourites: the mark on what the library knows.
import { use_answer } from "./answers";
import { texts } from "./language";
import { IconButton } from "./parts";
import { attempt, request } from "./talk";
import { say_with_undo } from "./undo";

// A favourite or none: the lists that are kept here, and so the answer that this is of, change with it.
export function Heart({ what, title, is_one }: { what: string; title: string; is_one: boolean }) {
  const make = (favourite: boolean) => request("library/favourites", { what, favourite });
  const press = async () => {
    if (await attempt(() => make(!is_one)) && is_one) say_with_undo(texts.no_favourite(title), () => make(true));
  };
  return <IconButton icon={is_one ? "heart-full" : "heart"} label={texts.favourite(title)} aria-pressed={is_one} onClick={press} />;
}

// The ids of all tracks that are one; undefined: not known yet.
export function use_favourites(): number[] | undefined {
  return use_answer<{ ids: number[] }>("library/favourites?kind=ids").answer?.ids;
}

interface TrackProps { track: { track_id?: number; title: string }; favourites: number[] | undefined }

// One that the library does not know has none.
export function TrackHeart({ track: { track_id, title }, favourites }: TrackProps) {
  if (track_id === undefined || !favourites) return null;
  return <Heart what={"track:" + track_id} title={title} is_one={favourites.includes(track_id)} />;
}
