import { Button, EmptyState, EmptyStateActions, EmptyStateBody, EmptyStateFooter } from "@patternfly/react-core";
import ExclamationCircleIcon from "@patternfly/react-icons/dist/esm/icons/exclamation-circle-icon";
import cockpit from "cockpit";
import type { Fault } from "../command";
import { refresh } from "../store";
import { Plain } from "../ui/Plain";

const _ = cockpit.gettext;

// Nothing is known of any level while the data store is missing or broken; the way back is the command's.
export function Unusable({ fault }: { fault: Fault }) {
  return (
    <div role="alert">
      <EmptyState status="danger" headingLevel="h2" icon={ExclamationCircleIcon} titleText={_("The data store cannot be used")}>
        <EmptyStateBody>
          <p><Plain text={fault.error} /></p>
          <p><Plain text={fault.advice} lines /></p>
        </EmptyStateBody>
        <EmptyStateFooter>
          <EmptyStateActions>
            <Button variant="secondary" onClick={() => void refresh()}>{_("Look again")}</Button>
          </EmptyStateActions>
        </EmptyStateFooter>
      </EmptyState>
    </div>
  );
}
