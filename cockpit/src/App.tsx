// The page: where one is decides what is shown.

import { Page } from "@patternfly/react-core";
import { Overview } from "./overview/Overview";
import ServicePage from "./service/ServicePage";
import { ReadOnly } from "./ReadOnly";
import { DialogsAndToasts } from "./ui/dialogs";
import { usePlace } from "./ui/location";
import { Waiting } from "./Waiting";

export function App() {
  const { path } = usePlace();
  return (
    <DialogsAndToasts>
      <Page className="no-masthead-sidebar" isContentFilled>
        <Waiting />
        <ReadOnly />
        {path[0] === "service" && path[1] ? <ServicePage key={path[1]} name={path[1]} /> : <Overview tab={path[0] ?? "services"} />}
      </Page>
    </DialogsAndToasts>
  );
}
