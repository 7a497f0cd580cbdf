// Why something could not be read or done, in the command's own words.

import { Alert, AlertActionLink } from "@patternfly/react-core";
import cockpit from "cockpit";
import type { ReactNode } from "react";
import type { Fault } from "../command";
import { Plain, plain } from "./Plain";

const _ = cockpit.gettext;

// Of every severity there is one text for who does not see the colour.
export function FaultAlert({ fault, children }: { fault: Fault; children?: ReactNode }) {
  return (
    <div role="alert">
      <Alert isInline variant="danger" title={plain(fault.error)} component="p" actionLinks={fault.kind === "connection" &&
        <AlertActionLink component="button" onClick={() => (window.top ?? window).location.reload()}>{_("Connect again")}</AlertActionLink>}>
        {fault.advice && <p><Plain text={fault.advice} lines /></p>}
        {children}
      </Alert>
    </div>
  );
}
