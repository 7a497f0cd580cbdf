// Takes back the last change, or the last undo: shows what the command would do, and does it.

import { List, ListItem } from "@patternfly/react-core";
import cockpit from "cockpit";
import { run } from "../command";
import { ChangeDialog } from "../dialogs/ChangeDialog";
import { FilesPart, Foreseen, ReloadersPart } from "../dialogs/Foreseen";
import { usePreview } from "../dialogs/usePreview";
import type { Undo } from "../documents";
import { Arrow, LevelLabel } from "../ui/Labels";
import { Losses } from "../ui/Losses";
import { Plain } from "../ui/Plain";
import { subjectName } from "../ui/states";

const _ = cockpit.gettext;

interface UndoDialogProps {
  command: "undo" | "redo";
  onClose: () => void;
}

export function UndoDialog({ command, onClose }: UndoDialogProps) {
  const isUndo = command === "undo";
  const preview = usePreview(command, async () => (await run(command, ["--dry-run"])).document);
  return (
    <ChangeDialog title={isUndo ? _("Undo last change") : _("Redo the change taken back")} act={isUndo ? _("Undo") : _("Redo")}
      size="medium" orders={preview.seen ? [{ command, args: [] }] : null} onClose={onClose}
      success={() => (isUndo ? _("The last change is undone") : _("The change is made again"))}>
      <Foreseen preview={preview}>
        {document => document.changes.map(change => <Preview key={change.undoes} change={change} />)}
      </Foreseen>
    </ChangeDialog>
  );
}

function Preview({ change }: { change: Undo.Document["changes"][number] }) {
  return (
    <>
      <List isPlain aria-label={_("Levels that change")}>
        {change.changes.map(({ service, from, to }) => <ListItem key={service}>
          <Plain text={subjectName(service)} />: <LevelLabel name={from} /> <Arrow /> <LevelLabel name={to} />
        </ListItem>)}
      </List>
      <Losses losses={change.losses} />
      <FilesPart rendered={change.apply.rendered} />
      <ReloadersPart reloaders={change.apply.reloaders} fault={change.apply["reload-fault"]} />
    </>
  );
}
