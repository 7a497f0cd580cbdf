// What can be done to one service.

import { Dropdown, DropdownList, MenuToggle } from "@patternfly/react-core";
import EllipsisVIcon from "@patternfly/react-icons/dist/esm/icons/ellipsis-v-icon";
import cockpit from "cockpit";
import { useRef, useState } from "react";
import type { ReactElement } from "react";
import ApplyDialog from "../dialogs/ApplyDialog";
import LeaveDialog from "../dialogs/LeaveDialog";
import LevelDialog from "../dialogs/LevelDialog";
import { useDialogs } from "../ui/dialogs";
import { GuardedButton, GuardedItem } from "../ui/guarded";
import { plain } from "../ui/Plain";

const _ = cockpit.gettext;

export function RowActions({ name }: { name: string }) {
  const { show, close } = useDialogs();
  return (
    <span className="kelotls-row-actions">
      <GuardedButton variant="secondary" size="sm" aria-label={cockpit.format(_("Change level of $0"), plain(name))}
        onClick={() => show(<LevelDialog services={[name]} onClose={close} />)}>
        {_("Change level")}
      </GuardedButton>
      <More name={name} />
    </span>
  );
}

function More({ name }: { name: string }) {
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
    <Dropdown isOpen={isOpen} onOpenChange={setOpen} popperProps={{ position: "end" }} toggle={{
      toggleRef: toggle,
      toggleNode: <MenuToggle ref={toggle} variant="plain" icon={<EllipsisVIcon />} isExpanded={isOpen}
        aria-label={cockpit.format(_("Actions for $0"), plain(name))} onClick={() => setOpen(!isOpen)} />,
    }}>
      <DropdownList>
        <GuardedItem onClick={() => choose(<ApplyDialog services={[name]} onClose={close} />)}>{_("Apply")}</GuardedItem>
        <GuardedItem isDanger onClick={() => choose(<LeaveDialog service={name} onClose={close} />)}>{_("Leave")}</GuardedItem>
      </DropdownList>
    </Dropdown>
  );
}
