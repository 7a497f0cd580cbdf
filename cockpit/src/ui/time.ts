// Points in time and durations, in the language of the page and the time of the browser's machine.

import { language } from "./surroundings";

// The command writes 2026-11-23T04:38:55Z.
export function moment(utc: string): string {
  const time = new Date(utc);
  if (Number.isNaN(time.getTime())) return utc;
  return new Intl.DateTimeFormat(language(), { dateStyle: "medium", timeStyle: "short" }).format(time);
}

export function clock(time: Date): string {
  return new Intl.DateTimeFormat(language(), { timeStyle: "medium" }).format(time);
}

const kUnits: [string, number][] = [["day", 86400], ["hour", 3600], ["minute", 60], ["second", 1]];

// The two largest units: "4 min 32 s", "3 days 2 hr".
export function duration(seconds: number, style: "short" | "long" = "short"): string {
  const first = Math.max(0, kUnits.findIndex(([, length]) => seconds >= length));
  const start = seconds < 1 ? kUnits.length - 1 : first;
  let rest = Math.max(0, Math.floor(seconds));
  const parts: string[] = [];
  for (const [unit, length] of kUnits.slice(start, start + 2)) {
    const count = Math.floor(rest / length);
    rest -= count * length;
    if (count > 0 || parts.length === 0) {
      parts.push(new Intl.NumberFormat(language(), { style: "unit", unit, unitDisplay: style }).format(count));
    }
  }
  return parts.join(" ");
}

// "2 hours ago", for what is near; else the date.
export function ago(utc: string, now = Date.now()): string {
  const time = new Date(utc).getTime();
  if (Number.isNaN(time)) return utc;
  // What has just happened by the appliance's clock may lie a little ahead of this one.
  const ahead = (time - now) / 1000;
  const seconds = Math.round(ahead > 0 && ahead < 60 ? 0 : ahead);
  if (Math.abs(seconds) >= 7 * 86400) return moment(utc);
  const [unit, length] = kUnits.find(([, length]) => Math.abs(seconds) >= length) ?? ["second", 1];
  return new Intl.RelativeTimeFormat(language(), { numeric: "auto" })
    .format(Math.trunc(seconds / length), unit as Intl.RelativeTimeFormatUnit);
}
