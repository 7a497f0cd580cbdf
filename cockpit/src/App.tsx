// The page: where one is decides what is shown.

import { Page } from "@patternfly/react-core";
import { Overview } from "./overview/Overview";
import ServicePage from "./service/ServicePage";
import { ReadOnly } from "./ReadOnly";
import { Boundary } from "./ui/Boundary";
import { DialogsAndToasts } from "./ui/dialogs";
import { usePlace } from "./ui/location";
import { Waiting } from "./Waiting";

export function App() {
  const { path } = usePlace();
  return (
    <DialogsAndToasts>
      <Page className="no-masthead-sidebar" isContentFilled>
        <Boundary><Waiting /></Boundary>
        <ReadOnly />
        {path[0] === "service" && path[1]
          ? <Boundary key={path[1]}><ServicePage name={path[1]} /></Boundary>
          : <Boundary><Overview tab={path[0] ?? "services"} /></Boundary>}
      </Page>
    </DialogsAndToasts>
  );
}
