// Makes the files of Diffie-Hellman parameters.

import { Checkbox } from "@patternfly/react-core";
import { Table, Tbody, Td, Th, Thead, Tr } from "@patternfly/react-table";
import cockpit from "cockpit";
import { useState } from "react";
import { run } from "../command";
import type { Dh } from "../documents";
import { Plain } from "../ui/Plain";
import { ChangeDialog } from "./ChangeDialog";
import { Foreseen } from "./Foreseen";
import { ReasonField, reasonArguments } from "./confirmation";
import { usePreview } from "./usePreview";

const _ = cockpit.gettext;

function whatHappens({ change, group, bits }: Dh.Document["files"][number]): string {
  if (change === "none") return _("Stays as it is");
  const source = group === "generated" ? cockpit.format(_("a new prime of $0 bits, which takes a while"), bits) : _("ffdhe2048, of RFC 7919");
  return cockpit.format(change === "new" ? _("Is made: $0") : _("Is replaced: $0"), source);
}

export default function DhDialog({ onClose }: { onClose: () => void }) {
  const [isForced, setForced] = useState(false);
  const [reason, setReason] = useState("");
  const options = isForced ? ["--force"] : [];
  const preview = usePreview(String(isForced), () => run("dh", [...options, "--dry-run"]));
  const isAnythingMade = preview.seen?.document.files.some(({ change }) => change !== "none") ?? false;
  return (
    <ChangeDialog title={_("Make DH parameters")} act={_("Make files")} onClose={onClose} size="medium"
      orders={isAnythingMade ? [{ command: "dh", args: [...options, ...reasonArguments(reason)] }] : null}
      success={() => _("DH parameters made")}>
      <Foreseen preview={preview}>
        {({ document: { files } }) => (
          <Table role="table" aria-label={_("DH parameters")} variant="compact">
            <Thead><Tr><Th>{_("File")}</Th><Th>{_("Bits")}</Th><Th>{_("What happens")}</Th></Tr></Thead>
            <Tbody>{files.map(file => (
              <Tr key={file.path}>
                <Td dataLabel={_("File")}><Plain text={file.path} /></Td>
                <Td dataLabel={_("Bits")}>{file.bits}</Td>
                <Td dataLabel={_("What happens")}>{whatHappens(file)}{file.fault && <div><Plain text={file.fault} /></div>}</Td>
              </Tr>
            ))}</Tbody>
          </Table>
        )}
      </Foreseen>
      <Checkbox id="force" label={_("Replace files that are in order, too")} isChecked={isForced} onChange={(_event, value) => setForced(value)} />
      <ReasonField value={reason} onChange={setReason} />
    </ChangeDialog>
  );
}
