import { PageSection } from "@patternfly/react-core";

export default function ServicePage({ name }: { name: string }) {
  return <PageSection>{name}</PageSection>;
}
