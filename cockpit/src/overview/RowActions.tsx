// What can be done to one service.

import cockpit from "cockpit";
import ApplyDialog from "../dialogs/ApplyDialog";
import LeaveDialog from "../dialogs/LeaveDialog";
import LevelDialog from "../dialogs/LevelDialog";
import { DialogMenu } from "../ui/DialogMenu";
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
      <DialogMenu name={cockpit.format(_("Actions for $0"), plain(name))}>{choose => <>
        <GuardedItem onClick={() => choose(<ApplyDialog services={[name]} onClose={close} />)}>{_("Apply")}</GuardedItem>
        <GuardedItem isDanger onClick={() => choose(<LeaveDialog service={name} onClose={close} />)}>{_("Leave")}</GuardedItem>
      </>}</DialogMenu>
    </span>
  );
}
