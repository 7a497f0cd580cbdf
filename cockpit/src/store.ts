// What is so on the appliance, as the command tells it: read again whenever the framework's files change, whoever
// changed them. Nothing else is kept here.

import cockpit from "cockpit";
import { useSyncExternalStore } from "react";
import { faultFrom, run } from "./command";
import type { Fault } from "./command";
import type { Documents, History, List, Status } from "./documents";

const kDirectories = [
  "/usr/kelo/etc/security-profile/tls-profile",
  "/usr/kelo/etc/security-profile/tls-profile/config",
  "/usr/kelo/etc/ssl",
];
// Changes come in bursts: a change of levels alone writes five files.
const kQuietMilliseconds = 150;
const kRetryMilliseconds = 10000;

// What one command told last, and why it does not tell it now.
export interface Told<Document> {
  document: Document | null;
  asOf: Date | null;
  fault: Fault | null;
}

export interface Levels {
  list: Told<List.Document>;
  status: Told<Status.Document>;
  history: Told<History.Document>;
  // Whether something is being read.
  reading: boolean;
  // Whether this user may change anything; null while that is not known.
  writable: boolean | null;
}

const kNothing = { document: null, asOf: null, fault: null };
let levels: Levels = { list: kNothing, status: kNothing, history: kNothing, reading: true, writable: null };

const listeners = new Set<() => void>();

function become(change: Partial<Levels>) {
  levels = { ...levels, ...change };
  for (const listener of [...listeners]) listener();
}

// Reading

let again = false;
let running: Promise<void> | null = null;
let timer: number | undefined;

// Reads everything; what is asked for meanwhile is read after that.
export function refresh(): Promise<void> {
  window.clearTimeout(timer);
  if (running) {
    again = true;
    return running;
  }
  become({ reading: true });
  running = readAll().finally(() => {
    running = null;
    become({ reading: false });
    if (again) {
      again = false;
      void refresh();
    } else if (levels.list.fault) {
      // What it takes to mend it may lie where nothing is watched.
      timer = window.setTimeout(refresh, kRetryMilliseconds);
    }
  });
  return running;
}

async function readAll() {
  await Promise.all([
    tell("status", "status", []),
    tell("history", "history", []),
    tell("list", "list", ["--findings"]),
  ]);
}

async function tell<Command extends keyof Documents & ("list" | "status" | "history")>(
  place: Command, command: Command, args: string[],
) {
  try {
    const { document } = await run(command, args);
    become({ [place]: { document, asOf: new Date(), fault: null } });
  } catch (caught) {
    become({ [place]: { ...levels[place], fault: faultFrom(caught) } });
  }
}

function soon() {
  window.clearTimeout(timer);
  if (cockpit.hidden) return;
  timer = window.setTimeout(refresh, kQuietMilliseconds);
}

// Watching

function watch(path: string) {
  const channel = cockpit.channel({ payload: "fswatch1", path, superuser: "try" });
  channel.addEventListener("message", (_event, data) => {
    // The lock changes with each command that writes, this page's own reading of it changes nothing.
    const { path: changed = "" } = JSON.parse(data) as { path?: string };
    if (!changed.endsWith("/lock") && !changed.endsWith(".lock")) soon();
  });
  channel.addEventListener("close", (_event, { problem }) => {
    // A directory that does not exist yet.
    if (problem && problem !== "disconnected") window.setTimeout(() => watch(path), kRetryMilliseconds);
  });
}

let started = false;

function start() {
  if (started) return;
  started = true;
  kDirectories.forEach(watch);
  cockpit.addEventListener("visibilitychange", soon);
  const permission = cockpit.permission({ admin: true });
  permission.addEventListener("changed", () => {
    if (permission.allowed === levels.writable) return;
    become({ writable: permission.allowed });
    void refresh();
  });
  become({ writable: permission.allowed });
  void refresh();
}

export function useLevels(): Levels {
  return useSyncExternalStore(listener => {
    listeners.add(listener);
    start();
    return () => listeners.delete(listener);
  }, () => levels);
}
