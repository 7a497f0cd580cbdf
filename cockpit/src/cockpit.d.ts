// What the page uses of Cockpit's module, which the host brings; see https://cockpit-project.org/guide/latest/.

declare module "cockpit" {
  interface Problem {
    problem: string | null;
    message: string;
    exit_status?: number | null;
    exit_signal?: string | null;
  }

  interface Spawned {
    then(done: (output: string, message: string) => void, failed: (why: Problem, output: string | null) => void): void;
    stream(callback: (data: string) => void): Spawned;
    input(data: string, more?: boolean): Spawned;
    close(problem?: string): void;
  }

  interface Channel {
    readonly valid: boolean;
    addEventListener(event: "message", callback: (event: Event, data: string) => void): void;
    addEventListener(event: "close", callback: (event: Event, options: { problem?: string }) => void): void;
    close(problem?: string): void;
  }

  interface Permission {
    allowed: boolean | null;
    addEventListener(event: "changed", callback: () => void): void;
    close(): void;
  }

  interface Location {
    readonly path: string[];
    readonly options: { [name: string]: string | string[] };
    go(path: string | string[], options?: { [name: string]: string }): void;
    replace(path: string | string[], options?: { [name: string]: string }): void;
    encode(path: string[], options?: { [name: string]: string }, withRoot?: boolean): string;
  }

  interface Cockpit {
    spawn(arguments_: string[], options: {
      superuser?: "try" | "require";
      err?: "message" | "out" | "ignore";
      environ?: string[];
    }): Spawned;
    channel(options: { payload: "fswatch1"; path: string; superuser?: "try" | "require" }): Channel;
    permission(options: { admin: boolean }): Permission;
    gettext(text: string): string;
    gettext(context: string, text: string): string;
    ngettext(one: string, many: string, count: number): string;
    format(text: string, ...values: (string | number)[]): string;
    readonly language: string;
    readonly language_direction: "ltr" | "rtl";
    readonly location: Location;
    readonly hidden: boolean;
    readonly info: { user?: { name: string; id: number } };
    readonly transport: { host: string };
    addEventListener(event: "locationchanged" | "visibilitychange", callback: () => void): void;
    removeEventListener(event: "locationchanged" | "visibilitychange", callback: () => void): void;
  }

  const cockpit: Cockpit;
  export default cockpit;
}
