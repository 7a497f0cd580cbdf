// Why something could not be read or done, in the command's own words.

import { Alert, AlertActionLink } from "@patternfly/react-core";
import cockpit from "cockpit";
import type { ReactNode } from "react";
import type { Fault } from "../command";
import { Plain } from "./Plain";
import { kSeverities } from "./severities";

const _ = cockpit.gettext;

export function FaultAlert({ fault, children }: { fault: Fault; children?: ReactNode }) {
  return (
    <div role="alert" className="kelotls-fault-text">
      <Alert isInline variant="danger" variantLabel={kSeverities.danger} title={<Plain text={fault.error} lines />} component="p" actionLinks={fault.kind === "connection" &&
        <AlertActionLink component="button" onClick={() => (window.top ?? window).location.reload()}>{_("Connect again")}</AlertActionLink>}>
        {fault.advice && <p><Plain text={fault.advice} lines /></p>}
        {children}
      </Alert>
    </div>
  );
}
