// Which clients a change would lose, as the command tells it from their recorded hellos.

import { Alert, List, ListItem } from "@patternfly/react-core";
import cockpit from "cockpit";
import type { Undo } from "../documents";
import { Plain, plain } from "./Plain";
import { kSeverities } from "./severities";
import { levelName } from "./states";

const _ = cockpit.gettext;

export type Loss = NonNullable<Undo.Document["changes"][number]["losses"]>[number];

const kVariants = { "none-lost": "success", "some-lost": "danger", "not-known": "warning" } as const;

export function Losses({ losses }: { losses: Loss[] }) {
  return <>{losses.map(loss => (
    <Alert key={loss.service} isInline component="p" variant={kVariants[loss.verdict]} variantLabel={kSeverities[kVariants[loss.verdict]]} title={plain(loss.text)}
      className="kelotls-loss">
      <p>{cockpit.format(_("$0: $1 becomes $2"), plain(loss.service), levelName(loss.today.name), levelName(loss.level.name))}</p>
      {loss.addresses.length > 0 && <>
        <p>{_("They come from:")}</p>
        <List isPlain>{loss.addresses.map(address => <ListItem key={address}><Plain text={address} /></ListItem>)}</List>
      </>}
    </Alert>
  ))}</>;
}
