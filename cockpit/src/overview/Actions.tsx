// What can be done beside changing levels.

import { ActionList, ActionListGroup, ActionListItem, Divider, Dropdown, DropdownList, MenuToggle } from "@patternfly/react-core";
import EllipsisVIcon from "@patternfly/react-icons/dist/esm/icons/ellipsis-v-icon";
import cockpit from "cockpit";
import { useRef, useState } from "react";
import type { ReactElement } from "react";
import ApplyDialog from "../dialogs/ApplyDialog";
import BackupDialog from "../dialogs/BackupDialog";
import DhDialog from "../dialogs/DhDialog";
import JoinDialog from "../dialogs/JoinDialog";
import RestoreDialog from "../dialogs/RestoreDialog";
import { useDialogs } from "../ui/dialogs";
import { GuardedButton, GuardedItem } from "../ui/guarded";

const _ = cockpit.gettext;

export function Actions() {
  const { show, close } = useDialogs();
  const [isOpen, setOpen] = useState(false);
  const toggle = useRef<HTMLButtonElement>(null);
  const choose = (dialog: ReactElement) => {
    setOpen(false);
    // The dialog gives the focus back to what had it: the menu's button.
    toggle.current?.focus();
    show(dialog);
  };
  return (
    <ActionList><ActionListGroup>
      <ActionListItem>
        <GuardedButton variant="secondary" onClick={() => show(<JoinDialog onClose={close} />)}>{_("Join a service")}</GuardedButton>
      </ActionListItem>
      <ActionListItem>
        <Dropdown isOpen={isOpen} onOpenChange={setOpen} popperProps={{ position: "end" }} toggle={{
          toggleRef: toggle,
          toggleNode: <MenuToggle ref={toggle} variant="plain" icon={<EllipsisVIcon />} isExpanded={isOpen}
            aria-label={_("More actions")} onClick={() => setOpen(!isOpen)} />,
        }}>
          <DropdownList>
            <GuardedItem onClick={() => choose(<ApplyDialog onClose={close} />)}>{_("Apply what is pending")}</GuardedItem>
            <Divider component="li" />
            <GuardedItem onClick={() => choose(<BackupDialog onClose={close} />)}>{_("Back up levels")}</GuardedItem>
            <GuardedItem onClick={() => choose(<RestoreDialog onClose={close} />)}>{_("Restore levels")}</GuardedItem>
            <Divider component="li" />
            <GuardedItem onClick={() => choose(<DhDialog onClose={close} />)}>{_("Make DH parameters")}</GuardedItem>
          </DropdownList>
        </Dropdown>
      </ActionListItem>
    </ActionListGroup></ActionList>
  );
}
