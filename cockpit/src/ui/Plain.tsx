// Text of others, names first of all, shown as it is: nobody can hide anything in it.

import { Fragment } from "react";

// Control characters, characters without width, and those that turn the direction of writing.
const kUnseen =
  /[\u0000-\u001f\u007f-\u009f\u00ad\u034f\u061c\u115f\u1160\u17b4\u17b5\u180b-\u180f\u200b-\u200f\u2028-\u202e\u2060-\u206f\u3164\ufe00-\ufe0f\ufeff\uffa0\ufff0-\ufffb]|\udb40[\udc00-\udfff]|[\ud800-\udbff](?![\udc00-\udfff])|(?<![\ud800-\udbff])[\udc00-\udfff]/g;
const kLineEnds = /\r?\n|\t/;

// For attributes, where there is text alone: what nobody can see as \u202e.
export function plain(text: string): string {
  return text.replace(kUnseen, escaped);
}

function escaped(character: string): string {
  return [...character].map(one => `\\u${one.codePointAt(0)!.toString(16).padStart(4, "0")}`).join("");
}

interface PlainProps {
  text: string;
  // Of files: line ends and tabs stay.
  lines?: boolean;
}

// Isolated: what is written from right to left turns nothing around it.
export function Plain({ text, lines = false }: PlainProps) {
  const parts: { shown: string; hidden: boolean }[] = [];
  let from = 0;
  for (const { 0: found, index } of text.matchAll(kUnseen)) {
    if (lines && kLineEnds.test(found)) continue;
    if (index > from) parts.push({ shown: text.slice(from, index), hidden: false });
    parts.push({ shown: escaped(found), hidden: true });
    from = index + found.length;
  }
  if (from < text.length) parts.push({ shown: text.slice(from), hidden: false });
  return (
    <bdi className="kelotls-plain">
      {parts.map(({ shown, hidden }, at) =>
        hidden ? <span key={at} className="kelotls-escaped">{shown}</span> : <Fragment key={at}>{shown}</Fragment>)}
    </bdi>
  );
}
