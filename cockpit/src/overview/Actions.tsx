// What can be done beside changing levels.

import { ActionList, ActionListGroup, ActionListItem, Divider } from "@patternfly/react-core";
import cockpit from "cockpit";
import ApplyDialog from "../dialogs/ApplyDialog";
import BackupDialog from "../dialogs/BackupDialog";
import DhDialog from "../dialogs/DhDialog";
import JoinDialog from "../dialogs/JoinDialog";
import RestoreDialog from "../dialogs/RestoreDialog";
import { DialogMenu } from "../ui/DialogMenu";
import { useDialogs } from "../ui/dialogs";
import { GuardedButton, GuardedItem } from "../ui/guarded";

const _ = cockpit.gettext;

export function Actions() {
  const { show, close } = useDialogs();
  return (
    <ActionList><ActionListGroup>
      <ActionListItem>
        <GuardedButton variant="secondary" onClick={() => show(<JoinDialog onClose={close} />)}>{_("Join a service")}</GuardedButton>
      </ActionListItem>
      <ActionListItem>
        <DialogMenu name={_("More actions")}>{choose => <>
          <GuardedItem onClick={() => choose(<ApplyDialog onClose={close} />)}>{_("Apply what is pending")}</GuardedItem>
          <Divider component="li" />
          <GuardedItem onClick={() => choose(<BackupDialog onClose={close} />)}>{_("Back up levels")}</GuardedItem>
          <GuardedItem onClick={() => choose(<RestoreDialog onClose={close} />)}>{_("Restore levels")}</GuardedItem>
          <Divider component="li" />
          <GuardedItem onClick={() => choose(<DhDialog onClose={close} />)}>{_("Make DH parameters")}</GuardedItem>
        </>}</DialogMenu>
      </ActionListItem>
    </ActionListGroup></ActionList>
  );
}
