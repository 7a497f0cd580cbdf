// What the command foresees of a change that is being chosen, asked again when the choice or the appliance changes.

import { useEffect, useState } from "react";
import { faultFrom } from "../command";
import type { Fault } from "../command";
import { useLevels } from "../store";

export interface Preview<Seen> {
  seen: Seen | null;
  fault: Fault | null;
  isBusy: boolean;
}

// The key names the choice; null where nothing is chosen. What was typed last is looked at a moment later.
export function usePreview<Seen>(key: string | null, look: () => Promise<Seen>, delay = 0): Preview<Seen> {
  const { status } = useLevels();
  const [preview, setPreview] = useState<Preview<Seen> & { key: string | null }>(
    { seen: null, fault: null, isBusy: false, key: null });
  const asOf = status.asOf?.getTime() ?? 0;

  useEffect(() => {
    if (key === null) {
      setPreview({ seen: null, fault: null, isBusy: false, key });
      return undefined;
    }
    let isCurrent = true;
    // Of another choice nothing is left to be seen; of the same one the former preview, until there is a new one.
    setPreview(former => (former.key === key ? { ...former, isBusy: true } : { seen: null, fault: null, isBusy: true, key }));
    const timer = window.setTimeout(() => {
      look().then(
        seen => isCurrent && setPreview({ seen, fault: null, isBusy: false, key }),
        caught => isCurrent && setPreview({ seen: null, fault: faultFrom(caught), isBusy: false, key }));
    }, delay);
    return () => {
      isCurrent = false;
      window.clearTimeout(timer);
    };
    // What is looked at is what the key names.
  }, [key, asOf]);
  return preview.key === key ? preview : { seen: null, fault: null, isBusy: key !== null };
}
