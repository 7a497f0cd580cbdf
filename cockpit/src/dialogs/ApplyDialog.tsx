// Brings into force what is stored.

import cockpit from "cockpit";
import { run } from "../command";
import { ChangeDialog } from "./ChangeDialog";
import { FilesPart, Foreseen, ReloadersPart } from "./Foreseen";
import { ConfirmationFields, confirmationArguments, foreseeingArguments, useConfirmation } from "./confirmation";
import { usePreview } from "./usePreview";

const _ = cockpit.gettext;

export default function ApplyDialog({ services = [], onClose }: { services?: string[]; onClose: () => void }) {
  const [confirmation, setConfirmation] = useConfirmation();
  const preview = usePreview([String(confirmation.isWanted), ...services].join("\0"), async () => {
    const [{ document: applied }, { document: checked }] = await Promise.all([
      run("apply", [...foreseeingArguments(confirmation), "--", ...services]), run("render", ["--check", "--", ...services])]);
    return { applied, checked };
  });
  const title = services.length === 1 ? cockpit.format(_("Apply $0"), services[0]) : _("Apply what is pending");
  return (
    <ChangeDialog title={title} act={_("Apply")} onClose={onClose}
      orders={preview.seen ? [{ command: "apply", args: [...confirmationArguments(confirmation), "--", ...services] }] : null}
      success={made => ("confirm" in made[0].document ? _("Applied, waits for confirmation") : _("Applied"))}>
      <Foreseen preview={preview}>
        {({ applied, checked }) => <>
          <FilesPart rendered={"services" in checked ? checked.services : applied.rendered} />
          <ReloadersPart reloaders={applied.reloaders} fault={applied["reload-fault"]} />
        </>}
      </Foreseen>
      <ConfirmationFields value={confirmation} onChange={setConfirmation} />
    </ChangeDialog>
  );
}
