// Runs kelotlsctl, which does everything that this page shows and does. Arguments are a list: nothing is ever read
// by a shell.

import cockpit from "cockpit";
import type { Documents } from "./documents";

const _ = cockpit.gettext;

// What the command printed, its exit status, and what it said beside that. It prints its document with other exit
// statuses than 0 too: where a check says no, a reloader fails, or something is not known.
export interface Ran<Document> {
  document: Document;
  code: number;
  said: string;
}

// Why there is no document.
//   command: the command refused or failed, and says so itself; code is its exit status
//   connection: the way to the appliance was lost; what the command has done meanwhile is not known
//   not-started: the command could not be run
//   unreadable: it printed something else than a document
export interface Fault {
  kind: "command" | "connection" | "not-started" | "unreadable";
  error: string;
  advice: string;
  code?: number;
}

export class CommandFault extends Error {
  readonly fault: Fault;

  constructor(fault: Fault) {
    super(fault.error);
    this.fault = fault;
  }
}

export interface RunOptions {
  // For the command's standard input.
  input?: string;
  // Is told what comes on the standard output, as it comes, whole lines or not.
  onOutput?: (data: string) => void;
  // Ends the command as Ctrl-C does: it finishes the step at which it is.
  signal?: AbortSignal;
}

// Names of commands may be of two words, as "clients judge". The promise is rejected with a CommandFault.
export function run<Command extends keyof Documents>(
  command: Command, args: string[] = [], options: RunOptions = {},
): Promise<Ran<Documents[Command]>> {
  return runRaw(command, args, options).then(({ output, code, said }) => {
    const document = parsed(output);
    if (document !== undefined && !isError(document)) {
      return { document: document as Documents[Command], code, said };
    }
    throw new CommandFault(document === undefined ? unreadable(output, said, code) : { kind: "command", ...document });
  });
}

export interface RawRun {
  output: string;
  code: number;
  said: string;
}

// The same for what is not one document: whoever calls this reads the output.
export function runRaw(command: string, args: string[] = [], options: RunOptions = {}): Promise<RawRun> {
  return new Promise((resolve, reject) => {
    const running = cockpit.spawn(["kelotlsctl", "--json", ...command.split(" "), ...args], {
      superuser: "try",
      err: "message",
      // An ordinary user's PATH has no sbin on Debian.
      environ: ["PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"],
    });
    let streamed = "";
    if (options.onOutput) {
      const { onOutput } = options;
      running.stream(data => {
        streamed += data;
        onOutput(data);
      });
    }
    running.then(
      (output, message) => resolve({ output: streamed + output, code: 0, said: message ?? "" }),
      (why, output) => {
        if (typeof why.exit_status === "number" && !why.problem) {
          resolve({ output: streamed + (output ?? ""), code: why.exit_status, said: why.message ?? "" });
        } else {
          reject(new CommandFault(faultOf(why)));
        }
      });
    if (options.input !== undefined) running.input(options.input);
    options.signal?.addEventListener("abort", () => running.close("cancelled"));
  });
}

export function faultFrom(caught: unknown): Fault {
  if (caught instanceof CommandFault) return caught.fault;
  return { kind: "unreadable", error: String(caught), advice: "" };
}

function faultOf(why: { problem: string | null; message: string; exit_signal?: string | null }): Fault {
  if (why.problem === "not-found" || why.problem === "access-denied" || why.problem === "not-supported") {
    return {
      kind: "not-started",
      error: _("kelotlsctl could not be started"),
      advice: why.problem === "not-found" ? _("It is in the package kelotls-tools.") : why.message,
    };
  }
  if (why.exit_signal) {
    return { kind: "unreadable", error: cockpit.format(_("kelotlsctl was ended by signal $0"), why.exit_signal), advice: "" };
  }
  return connectionLost();
}

export function connectionLost(): Fault {
  return {
    kind: "connection",
    error: _("The connection to the appliance was lost"),
    advice: _("What runs there goes on or is taken back by itself; this page shows it once it is connected again."),
  };
}

function unreadable(output: string, said: string, code: number): Fault {
  return {
    kind: "unreadable",
    error: _("kelotlsctl printed no document"),
    advice: said.trim() || output.slice(0, 500),
    code,
  };
}

function parsed(output: string): unknown {
  try {
    return JSON.parse(output);
  } catch {
    return undefined;
  }
}

function isError(document: unknown): document is Documents["error"] {
  return typeof document === "object" && document !== null && "error" in document && "advice" in document;
}
