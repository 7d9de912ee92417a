// What is asked in front of a screen, until it is answered or closed.
import type { ComponentChildren } from "preact";
import { useId, useLayoutEffect, useRef, useState } from "preact/hooks";
import { texts } from "./language";

interface Props {
  title: string;
  opener: (open: () => void) => ComponentChildren;
  children: (close: () => void) => ComponentChildren;
}

export function Sheet({ title, opener, children }: Props) {
  const dialog = useRef<HTMLDialogElement>(null);
  const [is_open, set_open] = useState(false);
  const heading = useId();
  const close = () => dialog.current?.close();
  useLayoutEffect(() => {
    if (is_open) dialog.current?.showModal();
  }, [is_open]);
  return <>
    {opener(() => set_open(true))}
    {is_open && <dialog ref={dialog} aria-labelledby={heading} onClose={() => set_open(false)}>
      <h2 class="first" id={heading}>{title}</h2>
      {children(close)}
      <button type="button" onClick={close}>{texts.cancel}</button>
    </dialog>}
  </>;
}
