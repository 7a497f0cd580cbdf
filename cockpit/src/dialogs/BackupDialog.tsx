// Hands the levels over to the browser, as a file that can be restored from.

import { Button, Modal, ModalBody, ModalFooter, ModalHeader } from "@patternfly/react-core";
import cockpit from "cockpit";
import { useState } from "react";
import { faultFrom, run } from "../command";
import type { Fault } from "../command";
import { FaultAlert } from "../ui/FaultAlert";
import { useToasts } from "../ui/dialogs";
import { GuardedButton } from "../ui/guarded";
import { Foreseen } from "./Foreseen";
import { usePreview } from "./usePreview";

const _ = cockpit.gettext;

// As the command names its own files.
function fileName(): string {
  const now = new Date();
  const digits = (number: number) => String(number).padStart(2, "0");
  const date = [now.getFullYear(), now.getMonth() + 1, now.getDate()].map(digits).join("");
  const time = [now.getHours(), now.getMinutes(), now.getSeconds()].map(digits).join("");
  return `kelotls-levels-${date}-${time}.json`;
}

function download(name: string, text: string) {
  const address = URL.createObjectURL(new Blob([text], { type: "application/json" }));
  const link = document.createElement("a");
  link.href = address;
  link.download = name;
  document.body.append(link);
  link.click();
  link.remove();
  // The browser has begun to read it by then.
  window.setTimeout(() => URL.revokeObjectURL(address), 60000);
}

export default function BackupDialog({ onClose }: { onClose: () => void }) {
  const say = useToasts();
  const [fault, setFault] = useState<Fault | null>(null);
  const preview = usePreview("-", () => run("backup", ["-", "--dry-run"]));
  const save = async () => {
    try {
      const { document } = await run("backup", ["-"]);
      download(fileName(), `${JSON.stringify(document.backup, null, 2)}\n`);
      onClose();
      say(_("Backup downloaded"));
    } catch (caught) {
      setFault(faultFrom(caught));
    }
  };
  return (
    <Modal isOpen variant="small" onClose={onClose} aria-labelledby="dialog-title" className="kelotls-dialog">
      <ModalHeader title={_("Back up levels")} labelId="dialog-title" />
      <ModalBody>
        <Foreseen preview={preview}>
          {({ document: { services } }) => <p>{cockpit.format(cockpit.ngettext(
            "The file holds the default level and the level of $0 service.",
            "The file holds the default level and the levels of $0 services.", services), services)}</p>}
        </Foreseen>
        {fault && <FaultAlert fault={fault} />}
      </ModalBody>
      <ModalFooter>
        <GuardedButton onClick={save} isDisabled={!preview.seen}>{_("Download")}</GuardedButton>
        <Button variant="link" onClick={onClose}>{_("Cancel")}</Button>
      </ModalFooter>
    </Modal>
  );
}
