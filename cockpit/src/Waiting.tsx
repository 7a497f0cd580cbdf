// The change that waits to be confirmed: how long it still does, and the two ways out. What counts is the
// appliance's own clock; this one only shows it, and asks again whenever something changes there.

import {
  Alert, Button, Flex, Modal, ModalBody, ModalFooter, ModalHeader, PageSection,
} from "@patternfly/react-core";
import type { AlertProps } from "@patternfly/react-core";
import cockpit from "cockpit";
import { useEffect, useState } from "react";
import { faultFrom, run } from "./command";
import type { Fault } from "./command";
import type { Status } from "./documents";
import { refresh, useLevels } from "./store";
import { useDialogs, useToasts } from "./ui/dialogs";
import { FaultAlert } from "./ui/FaultAlert";
import { GuardedButton } from "./ui/guarded";
import { Plain } from "./ui/Plain";
import { kSeverities } from "./ui/severities";
import { kDefaultLevel, subjectName } from "./ui/states";
import { duration } from "./ui/time";

const _ = cockpit.gettext;

type Change = NonNullable<Status.Document["waiting"]>;

const kNamesShown = 5;
// When the time that is left is said aloud, in seconds.
const kSaidAt = [10, 30, 60, 120, 300];

export function Waiting() {
  const { status } = useLevels();
  const waiting = status.document?.waiting;
  if (!waiting || !status.asOf) return null;
  return <Region waiting={waiting} asOf={status.asOf} />;
}

function Region({ waiting, asOf }: { waiting: Change; asOf: Date }) {
  const [fault, setFault] = useState<Fault | null>(null);
  const [doing, setDoing] = useState<string | null>(null);
  const { show, close } = useDialogs();
  const say = useToasts();
  const left = useSecondsLeft(waiting, asOf);

  const act = async (command: "confirm" | "revert" | "settle") => {
    setDoing(command);
    setFault(null);
    try {
      const { document } = await run(command);
      say(...told(command, document));
    } catch (caught) {
      setFault(faultFrom(caught));
    } finally {
      await refresh();
      setDoing(null);
    }
  };
  const { variant, title } = headings(waiting, left);
  return (
    <PageSection component="section" aria-label={_("Change waiting for confirmation")} className="kelotls-waiting">
      <Alert isInline component="h2" variant={variant} variantLabel={kSeverities[variant ?? "custom"]} title={title}>
        <p>
          {waiting.state === "prepared" && _("It waits for nobody yet:")}
          {waiting.state !== "prepared" && _("It is about:")} <Services services={waiting.services} />
        </p>
        {waiting.fault && <p><Plain text={waiting.fault} lines /></p>}
        {fault && <FaultAlert fault={fault} />}
        <Flex className="kelotls-ways-out">
          {waiting.state === "waiting" && left !== null && <>
            <span role="timer" aria-label={_("Time left")} className="kelotls-countdown">{duration(left)}</span>
            <SaidAloud left={left} />
          </>}
          {waiting.state === "waiting" && <>
            <GuardedButton isDisabled={doing !== null} isLoading={doing === "confirm"} onClick={() => void act("confirm")}>
              {_("Keep the change")}
            </GuardedButton>
            <GuardedButton variant="secondary" isDisabled={doing !== null} isLoading={doing === "revert"} onClick={() => void act("revert")}>
              {_("Take it back now")}
            </GuardedButton>
          </>}
          {waiting.state === "failed" && <>
            <GuardedButton isDisabled={doing !== null} isLoading={doing === "settle"} onClick={() => void act("settle")}>
              {_("Try again")}
            </GuardedButton>
            <GuardedButton variant="secondary" isDisabled={doing !== null} isLoading={doing === "confirm"}
              onClick={() => show(<LeaveAsIs onClose={close} onSure={() => { close(); void act("confirm"); }} />)}>
              {_("Leave it as it is")}
            </GuardedButton>
          </>}
        </Flex>
      </Alert>
    </PageSection>
  );
}

function headings({ state }: Change, left: number | null): { variant: AlertProps["variant"]; title: string } {
  switch (state) {
    case "prepared": return { variant: "info", title: _("A change is being made") };
    case "confirmed": return { variant: "info", title: _("A change is being confirmed") };
    case "taking-back": return { variant: "warning", title: _("A change is being taken back") };
    case "failed": return { variant: "danger", title: _("A change could not be taken back") };
    case "waiting": return left === 0 ?
      { variant: "warning", title: _("The time is over: the change is being taken back") } :
      { variant: "warning", title: _("A change is taken back unless you keep it") };
  }
}

function told(command: string, document: object): [string, AlertProps["variant"]] {
  const result = (document as { result?: string }).result;
  if (command === "revert") return [_("The change is taken back: everything is as before it"), "success"];
  if (command === "settle") return [_("What was due is done"), "success"];
  if (result === "take-back-failed") return [_("Everything is left as it is, in part taken back"), "warning"];
  return [_("The change stays"), "success"];
}

// Counted from what the appliance said last. When nothing is left, it is asked what became of the change.
function useSecondsLeft(waiting: Change, asOf: Date): number | null {
  const [now, setNow] = useState(Date.now());
  const counts = waiting.state === "waiting" && waiting["seconds-left"] !== undefined;
  const left = counts ? Math.max(0, waiting["seconds-left"]! - Math.floor(Math.max(0, now - asOf.getTime()) / 1000)) : null;
  useEffect(() => {
    if (!counts) return undefined;
    setNow(Date.now());
    const timer = window.setInterval(() => setNow(Date.now()), 1000);
    return () => window.clearInterval(timer);
  }, [counts, asOf]);
  const isOver = left === 0;
  useEffect(() => {
    if (!isOver && waiting.state === "waiting") return undefined;
    const timer = window.setInterval(() => void refresh(), 2000);
    return () => window.clearInterval(timer);
  }, [isOver, waiting.state]);
  return left;
}

// A timer is not read out as it runs; this is, now and then.
function SaidAloud({ left }: { left: number }) {
  const said = kSaidAt.find(mark => left <= mark);
  return <span role="status" className="pf-v6-screen-reader">
    {said !== undefined && cockpit.format(_("Less than $0 left to keep the change"), duration(said, "long"))}
  </span>;
}

function Services({ services }: { services: string[] }) {
  const others = services.length - kNamesShown;
  return (
    <>
      {services.slice(0, kNamesShown).map((service, at) => <span key={service}>
        {at > 0 && ", "}<Plain text={service === kDefaultLevel ? subjectName(service) : service} />
      </span>)}
      {others > 0 && ` ${cockpit.format(cockpit.ngettext("and $0 other", "and $0 others", others), others)}`}
    </>
  );
}

function LeaveAsIs({ onClose, onSure }: { onClose: () => void; onSure: () => void }) {
  return (
    <Modal isOpen variant="small" onClose={onClose} aria-labelledby="leave-title">
      <ModalHeader title={_("Leave everything as it is?")} titleIconVariant="warning" labelId="leave-title" />
      <ModalBody>
        {_("The change stays in part taken back, and is not tried again. Look afterwards at what the levels are, and set them anew.")}
      </ModalBody>
      <ModalFooter>
        <Button variant="danger" onClick={onSure}>{_("Leave as it is")}</Button>
        <Button variant="link" onClick={onClose}>{_("Cancel")}</Button>
      </ModalFooter>
    </Modal>
  );
}
