import { Alert, PageSection } from "@patternfly/react-core";
import LockIcon from "@patternfly/react-icons/dist/esm/icons/lock-icon";
import cockpit from "cockpit";
import { useLevels } from "./store";
import { kSeverities } from "./ui/severities";

const _ = cockpit.gettext;

// Said once, above everything: why so much is greyed out, and the way to more.
export function ReadOnly() {
  const { writable } = useLevels();
  if (writable !== false) return null;
  return (
    <PageSection component="section" aria-label={_("Read-only access")}>
      <Alert isInline variantLabel={kSeverities.custom} customIcon={<LockIcon />} component="h2" title={_("You can look, but change nothing")}>
        {_("Changes need administrative access, which this session does not have. Where you may have it, turn it on at the top of Cockpit's window. Some of what only root may read is not shown.")}
      </Alert>
    </PageSection>
  );
}
