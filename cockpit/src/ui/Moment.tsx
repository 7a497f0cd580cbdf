import { useEffect, useState } from "react";
import { ago, moment } from "./time";

// A point in time; pointing at it shows it as the command writes it, in UTC.
export function Moment({ utc, relative = false }: { utc: string; relative?: boolean }) {
  const [now, setNow] = useState(Date.now());
  useEffect(() => {
    if (!relative) return undefined;
    const timer = window.setInterval(() => setNow(Date.now()), 30000);
    return () => window.clearInterval(timer);
  }, [relative]);
  return <time dateTime={utc} title={utc}>{relative ? ago(utc, Math.max(now, Date.now())) : moment(utc)}</time>;
}
