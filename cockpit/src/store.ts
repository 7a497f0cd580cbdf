// What is so on the appliance, as the command tells it: read again whenever the framework's files change, whoever
// changed them. Nothing else is kept here.

import cockpit from "cockpit";
import { useSyncExternalStore } from "react";
import { connectionLost, faultFrom, run } from "./command";
import type { Fault } from "./command";
import type { History, List, Status } from "./documents";

const kDirectories = [
  "/usr/kelo/etc/security-profile/tls-profile",
  "/usr/kelo/etc/security-profile/tls-profile/config",
  "/usr/kelo/etc/ssl",
];
// Changes come in bursts: a change of levels alone writes five files.
const kQuietMilliseconds = 150;
const kRetryMilliseconds = 10000;
// A server that stops changes no file.
const kLookAgainMilliseconds = 300000;
const kPatienceMilliseconds = 1000;

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
  // Whether the list says what the files say, and the running servers are still being asked.
  asking: boolean;
  // Whether this user may change anything; null while that is not known.
  writable: boolean | null;
}

const kNothing = { document: null, asOf: null, fault: null };
let levels: Levels = { list: kNothing, status: kNothing, history: kNothing, reading: true, asking: false, writable: null };

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

// What waits to be confirmed is told at once, however slow a server is. So is what the files say of the services,
// where their servers take longer than one wants to wait.
async function readAll() {
  const whole = { isTold: false };
  await Promise.all([
    tell("list", ["--findings"]).finally(() => { whole.isTold = true; }),
    tellByFiles(whole),
    tell("status", ["--files"]).then(() => tell("history", [])),
  ]);
}

async function tellByFiles(whole: { isTold: boolean }) {
  if (levels.list.document) await new Promise(resume => window.setTimeout(resume, kPatienceMilliseconds));
  if (whole.isTold) return;
  try {
    const { document } = await run("list", ["--files"]);
    if (whole.isTold) return;
    const findings = levels.list.document?.findings;
    become({ list: { document: { ...document, findings }, asOf: new Date(), fault: null }, asking: true });
  } catch {
    // The other run will tell why.
  }
}

async function tell(command: "list" | "status" | "history", args: string[]) {
  try {
    const { document } = await run(command, args);
    become({ [command]: { document, asOf: new Date(), fault: null }, ...(command === "list" && { asking: false }) });
  } catch (caught) {
    become({ [command]: { ...levels[command], fault: faultFrom(caught) } });
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
    if (problem === "disconnected" || problem === "terminated" || problem === "no-session") {
      become({ list: { ...levels.list, fault: connectionLost() } });
    } else if (problem) {
      // A directory that does not exist yet.
      window.setTimeout(() => watch(path), kRetryMilliseconds);
    }
  });
}

// Called before anything is drawn: the command runs meanwhile.
export function start() {
  kDirectories.forEach(watch);
  cockpit.addEventListener("visibilitychange", soon);
  const permission = cockpit.permission({ admin: true });
  permission.addEventListener("changed", () => {
    if (permission.allowed === levels.writable) return;
    become({ writable: permission.allowed });
    void refresh();
  });
  become({ writable: permission.allowed });
  window.setInterval(soon, kLookAgainMilliseconds);
  void refresh();
}

export function useLevels(): Levels {
  return useSyncExternalStore(listener => {
    listeners.add(listener);
    return () => listeners.delete(listener);
  }, () => levels);
}
