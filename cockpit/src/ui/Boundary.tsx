// A part of the page that fails leaves the others as they are.

import { Alert, AlertActionLink } from "@patternfly/react-core";
import cockpit from "cockpit";
import { Component } from "react";
import type { ReactNode } from "react";
import { plain } from "./Plain";
import { kSeverities } from "./severities";

const _ = cockpit.gettext;

interface BoundaryState {
  error: Error | null;
}

export class Boundary extends Component<{ children: ReactNode }, BoundaryState> {
  override state: BoundaryState = { error: null };

  static getDerivedStateFromError(error: Error): BoundaryState {
    return { error };
  }

  override render() {
    const { error } = this.state;
    if (!error) return this.props.children;
    return (
      <div role="alert">
        <Alert isInline variant="danger" variantLabel={kSeverities.danger} component="p" title={_("This part of the page has failed")} actionLinks={
          <AlertActionLink component="button" onClick={() => this.setState({ error: null })}>{_("Try again")}</AlertActionLink>}>
          {plain(error.message)}
        </Alert>
      </div>
    );
  }
}
