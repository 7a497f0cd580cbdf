// How states, levels and results of the command are called on the page.

import cockpit from "cockpit";
import type { History, List } from "../documents";

const _ = cockpit.gettext;

export type Service = List.Document["services"][number];
export type State = Service["state"];
export type LevelName = Service["stored-level"]["name"] | Service["effective-level"]["name"];
export type Result = History.Document["changes"][number]["result"];
// How it is shown; "unknown" is neither good nor bad.
export type Mood = "good" | "busy" | "note" | "warning" | "bad" | "unknown";

interface Named {
  name: string;
  mood: Mood;
}

// In the order in which they want attention.
export const kStates: { [state in State]: Named } = {
  "unusable-level": { name: _("Unusable level"), mood: "bad" },
  "cannot-render": { name: _("Cannot be rendered"), mood: "bad" },
  "unreachable": { name: _("Its server cannot be at it"), mood: "bad" },
  "differs": { name: _("Differs on the wire"), mood: "bad" },
  "no-answer": { name: _("No answer from its server"), mood: "warning" },
  "pending-render": { name: _("Pending render"), mood: "busy" },
  "pending-reload": { name: _("Pending reload"), mood: "busy" },
  "cannot-tell": { name: _("Not known: server does not say"), mood: "unknown" },
  "needs-root": { name: _("Not known: needs root"), mood: "unknown" },
  "as-expected": { name: _("In force, as far as it can be"), mood: "good" },
  "next-context": { name: _("In force from its next context"), mood: "good" },
  "in-force": { name: _("In force"), mood: "good" },
};

export function wantsAttention(state: State): boolean {
  return kStates[state].mood !== "good";
}

export const kLevels: { [name in LevelName]: string } = {
  default: _("default"),
  modern: _("modern"),
  intermediate: _("intermediate"),
  old: _("old"),
  unknown: _("unknown"),
  unusable: _("unusable"),
};

export function levelName(name: string): string {
  return (kLevels as { [name: string]: string })[name] ?? name;
}

export const kResults: { [result in Result]: Named } = {
  done: { name: _("Done"), mood: "good" },
  confirmed: { name: _("Confirmed"), mood: "good" },
  running: { name: _("Being made"), mood: "busy" },
  waiting: { name: _("Waits to be confirmed"), mood: "busy" },
  "taking-back": { name: _("Being taken back"), mood: "busy" },
  undone: { name: _("Failed, former level is back"), mood: "warning" },
  "taken-back": { name: _("Taken back"), mood: "warning" },
  interrupted: { name: _("Interrupted"), mood: "warning" },
  failed: { name: _("Failed"), mood: "bad" },
  "take-back-failed": { name: _("Could not be taken back"), mood: "bad" },
};

// What the history calls the default level, in place of a service.
export const kDefaultLevel = "default level";

export function subjectName(service: string): string {
  return service === kDefaultLevel ? _("Default level") : service;
}
