// Makes a service leave, and shows which of its files go and who still names them.

import { Alert, List, ListItem } from "@patternfly/react-core";
import cockpit from "cockpit";
import { run } from "../command";
import { Plain, plain } from "../ui/Plain";
import { ChangeDialog } from "./ChangeDialog";
import { Foreseen, Part } from "./Foreseen";
import { ConfirmationFields, confirmationArguments, foreseeingArguments, useConfirmation } from "./confirmation";
import { usePreview } from "./usePreview";

const _ = cockpit.gettext;

interface LeaveDialogProps {
  service: string;
  onClose: () => void;
  onDone?: () => void;
}

export default function LeaveDialog({ service, onClose, onDone }: LeaveDialogProps) {
  const [confirmation, setConfirmation] = useConfirmation();
  const input = JSON.stringify({ services: [{ service }] });
  const preview = usePreview(String(confirmation.isWanted), () => run("leave", [...foreseeingArguments(confirmation), "-"], { input }));
  return (
    <ChangeDialog title={cockpit.format(_("Leave: $0"), service)} act={_("Leave")} isDanger onClose={onClose} onDone={onDone} size="medium"
      orders={preview.seen ? [{ command: "leave", args: [...confirmationArguments(confirmation), "-"], input }] : null}
      success={made => cockpit.format("confirm" in made[0].document ? _("$0 left, waits for confirmation") : _("$0 left"), plain(service))}>
      <Foreseen preview={preview}>
        {({ document: { services } }) => services.map(({ service: name, removed, "still-named-in": named }) => (
          <Part key={name} title={_("Files that will be removed")}>
            {removed.length === 0 ? <p>{_("None.")}</p>
              : <List isPlain aria-label={_("Files that will be removed")}>{removed.map(path => <ListItem key={path}><Plain text={path} /></ListItem>)}</List>}
            {named.length > 0 &&
              <Alert isInline component="p" variant="warning" title={_("Servers may not start: the rendered file is still named in other files")}>
                <List isPlain aria-label={_("Still named in")}>{named.map(path => <ListItem key={path}><Plain text={path} /></ListItem>)}</List>
              </Alert>}
          </Part>
        ))}
      </Foreseen>
      <ConfirmationFields value={confirmation} onChange={setConfirmation} />
    </ChangeDialog>
  );
}
