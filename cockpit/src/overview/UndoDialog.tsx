// Takes back the last change, or the last undo: shows what the command would do, and does it.

import { Button, Content, List, ListItem, Modal, ModalBody, ModalFooter, ModalHeader, Spinner } from "@patternfly/react-core";
import cockpit from "cockpit";
import { useEffect, useState } from "react";
import { faultFrom, run } from "../command";
import type { Fault } from "../command";
import type { Undo } from "../documents";
import { refresh } from "../store";
import { useToasts } from "../ui/dialogs";
import { FaultAlert } from "../ui/FaultAlert";
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
  const [preview, setPreview] = useState<Undo.Document | null>(null);
  const [fault, setFault] = useState<Fault | null>(null);
  const [isRunning, setRunning] = useState(false);
  const say = useToasts();
  const isUndo = command === "undo";
  const title = isUndo ? _("Undo last change") : _("Redo the change taken back");

  useEffect(() => {
    run(command, ["--dry-run"]).then(({ document }) => setPreview(document), caught => setFault(faultFrom(caught)));
  }, [command]);

  const act = async () => {
    setRunning(true);
    setFault(null);
    try {
      const { code, document } = await run(command);
      const back = document.changes.flatMap(({ apply }) => apply.undone.map(({ service }) => service));
      if (back.length > 0) say(_("Some services kept the level that they had"), "warning", <Names services={back} />);
      else if (code !== 0) say(_("Done, but not all is known to be in force"), "warning");
      else say(isUndo ? _("The last change is undone") : _("The change is made again"));
      onClose();
    } catch (caught) {
      setFault(faultFrom(caught));
    } finally {
      setRunning(false);
      void refresh();
    }
  };

  return (
    <Modal isOpen variant="medium" onClose={isRunning ? undefined : onClose} aria-labelledby="undo-title">
      <ModalHeader title={title} labelId="undo-title" />
      <ModalBody tabIndex={0} aria-label={title}>
        {fault && <FaultAlert fault={fault} />}
        {!preview && !fault && <Spinner aria-label={_("Looking at what would change")} />}
        {preview?.changes.map(change => <Preview key={change.undoes} change={change} />)}
      </ModalBody>
      <ModalFooter>
        <Button isDisabled={!preview || isRunning} isLoading={isRunning} onClick={() => void act()}>{isUndo ? _("Undo") : _("Redo")}</Button>
        <Button variant="link" isDisabled={isRunning} onClick={onClose}>{_("Cancel")}</Button>
      </ModalFooter>
    </Modal>
  );
}

function Names({ services }: { services: string[] }) {
  return <List isPlain>{services.map(service => <ListItem key={service}><Plain text={service} /></ListItem>)}</List>;
}

function Preview({ change }: { change: Undo.Document["changes"][number] }) {
  return (
    <Content>
      <List isPlain aria-label={_("Levels that change")}>
        {change.changes.map(({ service, from, to }) => <ListItem key={service}>
          <Plain text={subjectName(service)} />: <LevelLabel name={from} /> <Arrow /> <LevelLabel name={to} />
        </ListItem>)}
      </List>
      <Losses losses={change.losses} />
      {change.apply.reloaders.length > 0 && <>
        <p>{_("These reloaders will run:")}</p>
        <List isPlain className="kelotls-path">
          {change.apply.reloaders.map(({ path }) => <ListItem key={path}><Plain text={path} /></ListItem>)}
        </List>
      </>}
    </Content>
  );
}
