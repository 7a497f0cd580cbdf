// Takes levels from a backup, once it is seen which become others.

import { FormGroup, List, ListItem } from "@patternfly/react-core";
import { Table, Tbody, Td, Th, Thead, Tr } from "@patternfly/react-table";
import cockpit from "cockpit";
import { useState } from "react";
import { run } from "../command";
import type { Restore } from "../documents";
import { Arrow, LevelLabel } from "../ui/Labels";
import { Plain } from "../ui/Plain";
import { ChangeDialog } from "./ChangeDialog";
import { ClientsPart, Foreseen, Part } from "./Foreseen";
import { ConfirmationFields, confirmationArguments, foreseeingArguments, useConfirmation } from "./confirmation";
import { usePreview } from "./usePreview";

const _ = cockpit.gettext;

function Names({ title, names }: { title: string; names: string[] }) {
  if (names.length === 0) return null;
  return (
    <Part title={title}>
      <List isPlain aria-label={title}>{names.map(name => <ListItem key={name}><Plain text={name} /></ListItem>)}</List>
    </Part>
  );
}

function Changes({ document: { "default-level": level, changes, unknown, missing, losses } }: { document: Restore.Document }) {
  const isSame = level.from.value === level.to.value;
  return <>
    <p>{_("Default level:")} <LevelLabel name={level.from.name} />{!isSame && <> <Arrow /> <LevelLabel name={level.to.name} /></>}</p>
    {isSame && changes.length === 0 && <p>{_("No level differs from the backup.")}</p>}
    {changes.length > 0 &&
      <Table role="table" aria-label={_("Levels that change")} variant="compact">
        <Thead><Tr><Th>{_("Service")}</Th><Th>{_("From")}</Th><Th>{_("To")}</Th></Tr></Thead>
        <Tbody>{changes.map(({ service, from, to }) => (
          <Tr key={service}>
            <Td dataLabel={_("Service")}><Plain text={service} /></Td>
            <Td dataLabel={_("From")}><LevelLabel name={from.name} /></Td>
            <Td dataLabel={_("To")}><LevelLabel name={to.name} /></Td>
          </Tr>
        ))}</Tbody>
      </Table>}
    <Names title={_("In the backup, but not joined: passed over")} names={unknown} />
    <Names title={_("Not in the backup: keep their level")} names={missing} />
    <ClientsPart losses={losses} judged={null} />
  </>;
}

export default function RestoreDialog({ onClose }: { onClose: () => void }) {
  const [confirmation, setConfirmation] = useConfirmation();
  const [file, setFile] = useState<{ name: string; text: string } | null>(null);
  const preview = usePreview(file && `${confirmation.isWanted}\0${file.name}\0${file.text}`,
    () => run("restore", [...foreseeingArguments(confirmation), "-"], { input: file!.text }));
  return (
    <ChangeDialog title={_("Restore levels")} act={_("Restore")} onClose={onClose}
      orders={file && preview.seen ? [{ command: "restore", args: [...confirmationArguments(confirmation), "-"], input: file.text }] : null}
      success={made => ("confirm" in made[0].document ? _("Levels restored, waits for confirmation")
        : confirmation.isWanted ? _("Levels restored") : _("Levels restored, not in force yet"))}>
      <FormGroup fieldId="backup-file" label={_("Backup file")} isRequired>
        <input id="backup-file" type="file" accept=".json,application/json"
          onChange={async ({ target }) => {
            const chosen = target.files?.[0];
            setFile(chosen ? { name: chosen.name, text: await chosen.text() } : null);
          }} />
      </FormGroup>
      <Foreseen preview={preview} nothing={_("Choose a backup to see which levels would change.")}>
        {({ document }) => <Changes document={document} />}
      </Foreseen>
      <ConfirmationFields value={confirmation} onChange={setConfirmation} />
    </ChangeDialog>
  );
}
