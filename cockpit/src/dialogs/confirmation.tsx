// How a change waits to be confirmed, and why it is made.

import { Checkbox, FormGroup, FormSelect, FormSelectOption, TextInput } from "@patternfly/react-core";
import cockpit from "cockpit";
import { useState } from "react";

const _ = cockpit.gettext;

const kTimes = [
  { duration: "1m", name: _("1 minute") },
  { duration: "5m", name: _("5 minutes") },
  { duration: "15m", name: _("15 minutes") },
  { duration: "1h", name: _("1 hour") },
];

export interface Confirmation {
  isWanted: boolean;
  time: string;
  reason: string;
}

export function useConfirmation(isWanted = true) {
  return useState<Confirmation>({ isWanted, time: "5m", reason: "" });
}

// Without a confirmation, what has the change come into force.
export function confirmationArguments({ isWanted, time, reason }: Confirmation, otherwise: string[] = []): string[] {
  return [...(isWanted ? [`--confirm=${time}`] : otherwise), ...reasonArguments(reason)];
}

// For looking what would change: while another change waits, only one that is to be confirmed with it is not refused.
export function foreseeingArguments({ isWanted, time }: Confirmation, otherwise: string[] = []): string[] {
  return ["--dry-run", ...(isWanted ? [`--confirm=${time}`] : otherwise)];
}

export function reasonArguments(reason: string): string[] {
  return reason.trim() ? [`--reason=${reason.trim()}`] : [];
}

interface FieldsProps {
  value: Confirmation;
  onChange: (value: Confirmation) => void;
  // Why a reason has to be given; null where it may be left out.
  needsReason?: string | null;
}

export function ConfirmationFields({ value, onChange, needsReason = null }: FieldsProps) {
  return <>
    <FormGroup role="group" fieldId="confirm" label={_("Confirmation")}>
      <Checkbox id="confirm" label={_("Take it back unless I confirm in time")} isChecked={value.isWanted}
        description={_("Whoever locks himself out gets in again without doing anything.")}
        onChange={(_event, isWanted) => onChange({ ...value, isWanted })} />
    </FormGroup>
    {value.isWanted &&
      <FormGroup fieldId="confirm-time" label={_("Time to confirm")}>
        <FormSelect id="confirm-time" value={value.time} onChange={(_event, time) => onChange({ ...value, time })}>
          {kTimes.map(({ duration, name }) => <FormSelectOption key={duration} value={duration} label={name} />)}
        </FormSelect>
      </FormGroup>}
    <ReasonField value={value.reason} onChange={reason => onChange({ ...value, reason })} needed={needsReason} />
  </>;
}

export function ReasonField({ value, onChange, needed = null }: { value: string; onChange: (text: string) => void; needed?: string | null }) {
  return (
    <FormGroup fieldId="reason" label={_("Reason")} isRequired={needed !== null}>
      <TextInput id="reason" value={value} isRequired={needed !== null} aria-describedby="reason-help"
        onChange={(_event, text) => onChange(text)} />
      <div id="reason-help" className="kelotls-help">{needed ?? _("Kept in the history")}</div>
    </FormGroup>
  );
}
