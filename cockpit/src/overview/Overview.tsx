import { PageSection, Title } from "@patternfly/react-core";
import cockpit from "cockpit";
import { useLevels } from "../store";

const _ = cockpit.gettext;

export function Overview({ tab }: { tab: string }) {
  const { list } = useLevels();
  return (
    <PageSection>
      <Title headingLevel="h1">{_("TLS levels")}</Title>
      {tab} {list.document?.services.map(({ service }) => <div key={service}>{service}</div>)}
    </PageSection>
  );
}
