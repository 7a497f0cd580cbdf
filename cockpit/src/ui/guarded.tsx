// Controls that change something: there for everybody, and saying why where they do nothing.

import { Button, DropdownItem, Tooltip } from "@patternfly/react-core";
import type { ButtonProps, DropdownItemProps } from "@patternfly/react-core";
import cockpit from "cockpit";
import { useLevels } from "../store";

const _ = cockpit.gettext;

// Why this user changes nothing here; null where nothing hinders.
export function useHindrance(): string | null {
  return useLevels().writable ? null : whyReadOnly();
}

export function whyReadOnly(): string {
  return _("Changes need administrative access, which this session does not have.");
}

// Disabled it can still be reached by keyboard, so that its tooltip can be read.
export function GuardedButton(props: ButtonProps) {
  const hindrance = useHindrance();
  if (hindrance === null) return <Button {...props} />;
  return <Tooltip content={hindrance}><Button {...props} isAriaDisabled /></Tooltip>;
}

export function GuardedItem(props: DropdownItemProps) {
  const hindrance = useHindrance();
  if (hindrance === null) return <DropdownItem {...props} />;
  return <DropdownItem {...props} isAriaDisabled tooltipProps={{ content: hindrance }} />;
}
