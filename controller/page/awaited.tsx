// What stands where an answer is awaited.
import { useEffect, useState } from "preact/hooks";
import { texts } from "./language";

const kSlowMs = 300;  // longer: something is said about it

// Until there is an answer: why not, or, where it takes long, that it is on its way.
export function Awaited({ failure }: { failure: string }) {
  const [is_slow, set_slow] = useState(false);
  useEffect(() => {
    const timer = setTimeout(() => set_slow(true), kSlowMs);
    return () => clearTimeout(timer);
  }, []);
  if (failure) return <p class="warn">{failure}</p>;
  return is_slow ? <p class="quiet" role="status">{texts.being_read}</p> : null;
}
