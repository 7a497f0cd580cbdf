// Makes changes, and tells while they are made what the command is at.

import cockpit from "cockpit";
import { useCallback, useReducer, useRef } from "react";
import { CommandFault, faultFrom, runRaw } from "../command";
import type { Fault } from "../command";
import type { Documents, JsonLines } from "../documents";
import { refresh } from "../store";

const _ = cockpit.gettext;

type Line = JsonLines.Document;
export type Message = Extract<Line, { text: string }>;
type Progress = Extract<Line, { step: string }>;

// One run of the command. Two words for a command of two.
export interface Order {
  command: keyof Documents;
  args: string[];
  input?: string;
}

export interface Made {
  order: Order;
  document: Documents[keyof Documents];
  code: number;
}

export interface Step extends Progress {
  isDone: boolean;
}

export interface Making {
  phase: "choosing" | "running" | "over";
  steps: Step[];
  // It goes through its steps once more, to take back what has failed.
  takesBack: boolean;
  messages: Message[];
  made: Made[];
  fault: Fault | null;
}

type Event = { kind: "begin" } | { kind: "back" } | { kind: "line"; line: Line } | { kind: "made"; made: Made } | { kind: "end"; fault: Fault | null };

const kNothing: Making = { phase: "choosing", steps: [], takesBack: false, messages: [], made: [], fault: null };

function reduce(making: Making, event: Event): Making {
  switch (event.kind) {
    case "begin":
      return { ...kNothing, phase: "running" };
    case "back":
      return kNothing;
    case "line":
      return "step" in event.line ? withProgress(making, event.line)
        : "text" in event.line ? { ...making, messages: [...making.messages, event.line] }
          : making;
    case "made":
      return { ...making, steps: making.steps.map(done), made: [...making.made, event.made] };
    case "end":
      return { ...making, phase: "over", fault: event.fault };
  }
}

function done(step: Step): Step {
  return { ...step, isDone: true };
}

// A step that comes after a later one begins another round.
function withProgress(making: Making, progress: Progress): Making {
  const isDone = progress.done >= progress.all;
  const at = making.steps.findIndex(({ step }) => step === progress.step);
  if (at < 0) return { ...making, steps: [...making.steps.map(done), { ...progress, isDone }] };
  const begins = at < making.steps.length - 1 && progress.done === 0;
  const steps = begins ? making.steps.slice(0, at) : making.steps;
  const rest = begins ? [] : making.steps.slice(at + 1);
  return {
    ...making,
    steps: [...steps.slice(0, at), { ...progress, isDone }, ...rest],
    takesBack: making.takesBack || (begins && making.made.length === 0 && progress.step === "rendering"),
  };
}

// Runs the orders one after another, up to the first that does not end with 0, and resolves to what became of them.
export function useMaking() {
  const [making, tell] = useReducer(reduce, kNothing);
  const stopping = useRef<AbortController | null>(null);

  const make = useCallback(async (orders: Order[]): Promise<Pick<Making, "made" | "messages" | "fault">> => {
    const outcome = { made: [] as Made[], messages: [] as Message[], fault: null as Fault | null };
    stopping.current = new AbortController();
    tell({ kind: "begin" });
    try {
      for (const order of orders) {
        const made = await runTelling(order, stopping.current.signal, line => {
          if ("text" in line) outcome.messages.push(line);
          tell({ kind: "line", line });
        });
        outcome.made.push(made);
        tell({ kind: "made", made });
        if (made.code !== 0) break;
      }
    } catch (caught) {
      outcome.fault = faultFrom(caught);
    }
    tell({ kind: "end", fault: outcome.fault });
    void refresh();
    return outcome;
  }, []);

  // It ends the step at which it is, and takes back what it has begun.
  const stop = useCallback(() => stopping.current?.abort(), []);
  const goBack = useCallback(() => tell({ kind: "back" }), []);
  return { making, make, stop, goBack };
}

async function runTelling(order: Order, signal: AbortSignal, tell: (line: Line) => void): Promise<Made> {
  let document: unknown;
  let rest = "";
  const read = (text: string) => {
    const lines = (rest + text).split("\n");
    rest = lines.pop()!;
    for (const line of lines.map(parsed)) {
      if (line && "document" in line) document = line.document;
      else if (line) tell(line);
    }
  };
  let code = 0;
  let said = "";
  try {
    ({ code, said } = await runRaw(order.command, ["--json-lines", ...order.args], { input: order.input, onOutput: read, signal }));
  } catch (caught) {
    throw signal.aborted ? new CommandFault(toldToEnd()) : caught;
  }
  read("\n");
  for (const text of saidByOthers(said)) tell({ event: "note", text });
  if (typeof document !== "object" || document === null) {
    throw new CommandFault({ kind: "unreadable", error: _("kelotlsctl printed no document"), advice: said.trim(), code });
  }
  if ("error" in document && "advice" in document) {
    throw new CommandFault({ kind: "command", ...document as Documents["error"] });
  }
  return { order, document: document as Documents[keyof Documents], code };
}

// What reloaders say goes to the standard error, too: among what the command says there itself, which has come
// already.
function saidByOthers(said: string): string[] {
  return said.split("\n").filter(line => line.trim() && !line.startsWith("kelotlsctl: ") && !line.startsWith("  "));
}

function parsed(line: string): Line | null {
  try {
    return JSON.parse(line) as Line;
  } catch {
    return null;
  }
}

function toldToEnd(): Fault {
  return {
    kind: "command",
    error: _("kelotlsctl was told to end"),
    advice: _("It ends the step at which it is, and takes back what is not in force by then. The history tells what came of it."),
  };
}
