// Where in the page one is: the part of the address after "#", which Back, reload and bookmarks keep.

import cockpit from "cockpit";
import { useSyncExternalStore } from "react";

export interface Place {
  path: string[];
  options: { [name: string]: string };
}

let known = { href: "", place: current() };

function current(): Place {
  const options = Object.fromEntries(Object.entries(cockpit.location.options).map(
    ([name, value]) => [name, Array.isArray(value) ? value[0] : value]));
  return { path: [...cockpit.location.path], options };
}

function subscribe(changed: () => void) {
  cockpit.addEventListener("locationchanged", changed);
  return () => cockpit.removeEventListener("locationchanged", changed);
}

export function usePlace(): Place {
  return useSyncExternalStore(subscribe, () => {
    if (known.href !== window.location.hash) known = { href: window.location.hash, place: current() };
    return known.place;
  });
}

export function go(path: string[], options: Place["options"] = {}) {
  cockpit.location.go(path, options);
}

// Without an entry of its own in the browser's history: for what is typed letter by letter.
export function replace(path: string[], options: Place["options"] = {}) {
  cockpit.location.replace(path, options);
}

export function address(path: string[], options: Place["options"] = {}): string {
  return `#${cockpit.location.encode(path, options)}`;
}
