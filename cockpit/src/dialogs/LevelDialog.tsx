// Chooses a level for services, or for all that follow the default one, and shows meanwhile who would be lost by it.

import { FormGroup, FormSelect, FormSelectOption, Radio, TextInput } from "@patternfly/react-core";
import cockpit from "cockpit";
import { useState } from "react";
import { run } from "../command";
import type { Apply, ClientsJudge, Explain } from "../documents";
import { useLevels } from "../store";
import type { Loss } from "../ui/Losses";
import { levelName } from "../ui/states";
import { ChangeDialog } from "./ChangeDialog";
import { ClientsPart, FilesPart, Foreseen, MachinePart, ReloadersPart } from "./Foreseen";
import { ConfirmationFields, confirmationArguments, foreseeingArguments, reasonArguments, useConfirmation } from "./confirmation";
import type { Order } from "./making";
import { usePreview } from "./usePreview";

const _ = cockpit.gettext;

type Choice = "modern" | "intermediate" | "old" | "default";
type Target = string[] | "default";

const kChoices: { [choice in Choice]: { name: string; allows: string } } = {
  modern: { name: _("Modern"), allows: _("TLS 1.3, for clients of the last years") },
  intermediate: { name: _("Intermediate"), allows: _("TLS 1.2 and 1.3, for general use") },
  old: { name: _("Old"), allows: _("TLS 1.0 to 1.3, for what cannot be replaced") },
  default: { name: _("Follow the default level"), allows: "" },
};

interface Seen {
  applied: Pick<Apply.Document, "rendered" | "reloaders" | "reload-fault"> | null;
  losses: Loss[];
  judged: ClientsJudge.Document | null;
  explained: Explain.Document | null;
}

function change(target: Target, level: Choice, options: string[]): Order {
  return target === "default" ? { command: "default", args: [...options, level] }
    : { command: "set", args: [...options, "--", ...target, level] };
}

async function foresee(target: Target, level: Choice, effective: string, options: string[]): Promise<Seen> {
  const { command, args } = change(target, level, options);
  const [{ document }, explained] = await Promise.all([
    run(command as "set" | "default", args),
    run("explain", [effective]).catch(() => null),
  ]);
  const losses: Loss[] = document.losses ?? [];
  // What it is about is told by name only where there is one service.
  const judged = target !== "default" && target.length === 1 && losses.length === 1
    ? await run("clients judge", ["--", target[0], effective]).catch(() => null) : null;
  return { applied: document.apply ?? null, losses, judged: judged?.document ?? null, explained: explained?.document ?? null };
}

function titleOf(target: Target): string {
  return target === "default" ? _("Change default level")
    : target.length === 1 ? cockpit.format(_("Change level of $0"), target[0])
      : cockpit.format(cockpit.ngettext("Change level of $0 service", "Change level of $0 services", target.length), target.length);
}

function tomorrow(): string {
  const date = new Date(Date.now() + 86400000);
  return [date.getFullYear(), date.getMonth() + 1, date.getDate()].map(part => String(part).padStart(2, "0")).join("-");
}

export default function LevelDialog({ services, onClose }: { services: string[] | "default"; onClose: () => void }) {
  const { list } = useLevels();
  const [level, setLevel] = useState<Choice | null>(null);
  const [confirmation, setConfirmation] = useConfirmation();
  const [until, setUntil] = useState("");
  const [then, setThen] = useState("");
  const isDefault = services === "default";
  const defaultLevel = list.document?.["default-level"].name ?? "intermediate";
  const effective = level === "default" ? defaultLevel : level;
  const lacksReason = until !== "" && confirmation.reason.trim() === "";
  const dating = [...(until ? [`--until=${until}`] : []), ...(until && then ? [`--then=${then}`] : [])];
  // What is wrong with a date is told beforehand, too. Which reason there is does not matter to that.
  const foreseen = [...foreseeingArguments(confirmation, ["--apply"]), ...(lacksReason ? [] : dating)];
  const preview = usePreview(level && [level, ...foreseen].join(" "),
    () => foresee(services, level!, effective!, [...foreseen, ...reasonArguments(confirmation.reason)]));

  const options = [
    ...confirmationArguments(confirmation, ["--apply"]),
    ...dating,
  ];
  const isReady = level !== null && preview.seen !== null && !preview.fault && !lacksReason;
  const current = isDefault ? list.document?.["default-level"].name
    : services.length === 1 ? list.document?.services.find(({ service }) => service === services[0])?.["stored-level"].name : undefined;

  return (
    <ChangeDialog title={titleOf(services)} act={_("Apply")} onClose={onClose} orders={isReady ? [change(services, level, options)] : null}
      success={made => ("confirm" in made[0].document ? _("Level changed, waits for confirmation") : _("Level changed"))}>
      <div className="kelotls-columns">
        <FormGroup role="radiogroup" className="kelotls-levels" fieldId="level" label={_("Level")}>
          {(Object.keys(kChoices) as Choice[]).filter(choice => !isDefault || choice !== "default").map(choice => (
            <Radio key={choice} id={`level-${choice}`} name="level" isChecked={level === choice} onChange={() => setLevel(choice)}
              label={kChoices[choice].name}
              description={<>
              {choice === "default" ? cockpit.format(_("It is $0 now."), levelName(defaultLevel)) : kChoices[choice].allows}
              {choice === current && <><br />{_("This is the level now.")}</>}
            </>} />
          ))}
        </FormGroup>
        <Foreseen preview={preview} nothing={_("Choose a level to see what it would change.")}>
          {({ applied, losses, judged, explained }) => <>
            <ClientsPart losses={losses} judged={judged} />
            {applied && <FilesPart rendered={applied.rendered} />}
            {applied && <ReloadersPart reloaders={applied.reloaders} fault={applied["reload-fault"]} />}
            {explained && <MachinePart explained={explained} />}
          </>}
        </Foreseen>
        <div className="kelotls-fields">
          {!isDefault && <>
            <FormGroup fieldId="until" label={_("Ends on")}>
              <TextInput id="until" type="date" value={until} min={tomorrow()} aria-describedby="until-help" onChange={(_event, date) => setUntil(date)} />
              <div id="until-help" className="kelotls-help">{_("Leave it empty for a level without an end.")}</div>
            </FormGroup>
            {until !== "" &&
              <FormGroup fieldId="then" label={_("Level after that")}>
                <FormSelect id="then" value={then} onChange={(_event, value) => setThen(value)}>
                  <FormSelectOption value="" label={_("The level before")} />
                  {(Object.keys(kChoices) as Choice[]).map(choice => <FormSelectOption key={choice} value={choice} label={kChoices[choice].name} />)}
                </FormSelect>
              </FormGroup>}
          </>}
          <ConfirmationFields value={confirmation} onChange={setConfirmation}
            needsReason={until !== "" ? _("A level that ends needs a reason, for the next administrator.") : null} />
        </div>
      </div>
    </ChangeDialog>
  );
}
