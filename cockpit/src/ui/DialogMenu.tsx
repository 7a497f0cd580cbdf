// A menu of what opens dialogs.

import { Dropdown, DropdownList, MenuToggle } from "@patternfly/react-core";
import EllipsisVIcon from "@patternfly/react-icons/dist/esm/icons/ellipsis-v-icon";
import { useRef, useState } from "react";
import type { ReactElement, ReactNode } from "react";
import { useDialogs } from "./dialogs";

interface DialogMenuProps {
  name: string;
  // Its items; what they choose is shown once the menu is closed.
  children: (choose: (dialog: ReactElement) => void) => ReactNode;
}

export function DialogMenu({ name, children }: DialogMenuProps) {
  const { show } = useDialogs();
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
        aria-label={name} onClick={() => setOpen(!isOpen)} />,
    }}>
      <DropdownList>{children(choose)}</DropdownList>
    </Dropdown>
  );
}
