// What all dialogs that change something share: first one chooses and sees what that would do, then it is done while
// one watches, and then one sees what came of it.

import {
  Button, Form, List, ListItem, Modal, ModalBody, ModalFooter, ModalHeader, Progress, Title,
} from "@patternfly/react-core";
import cockpit from "cockpit";
import { useEffect, useRef } from "react";
import type { FormEvent, ReactNode } from "react";
import { FaultAlert } from "../ui/FaultAlert";
import { Plain, plain } from "../ui/Plain";
import { useToasts } from "../ui/dialogs";
import { GuardedButton } from "../ui/guarded";
import { Signed } from "../ui/Labels";
import "./dialogs.css";
import { Results } from "./Results";
import { useMaking } from "./making";
import type { Made, Making, Message, Order, Step } from "./making";

const _ = cockpit.gettext;

interface ChangeDialogProps {
  title: string;
  // What the button says that makes the change.
  act: string;
  isDanger?: boolean;
  // What runs; null while it is not known.
  orders: Order[] | null;
  // What is said once all of it has been done.
  success: (made: Made[]) => string;
  onClose: () => void;
  // Once all of it has been done, and the dialog is gone.
  onDone?: () => void;
  size?: "medium" | "large";
  children: ReactNode;
}

export function ChangeDialog({ title, act, isDanger, orders, success, onClose, onDone, size = "large", children }: ChangeDialogProps) {
  const { making, make, stop, goBack } = useMaking();
  const say = useToasts();
  const isRunning = making.phase === "running";

  const begin = async () => {
    if (!orders) return;
    const { made, messages, fault } = await make(orders);
    if (fault || made.length < orders.length || made.some(({ code }) => code !== 0)) return;
    const warnings = messages.filter(({ event }) => event !== "note");
    onClose();
    onDone?.();
    if (warnings.length === 0) say(success(made));
    else say(success(made), "warning", <Messages messages={warnings} />);
  };
  const submit = (event: FormEvent) => {
    event.preventDefault();
    void begin();
  };

  return (
    <Modal isOpen variant={size} onClose={making.phase === "choosing" ? onClose : undefined} onEscapePress={() => isRunning || onClose()}
      aria-labelledby="dialog-title" className="kelotls-dialog">
      <ModalHeader title={plain(title)} labelId="dialog-title" />
      <ModalBody tabIndex={0} aria-label={_("Content")} role="group">
        {making.phase === "choosing"
          ? <Form id="dialog-form" onSubmit={submit}>{children}</Form>
          : <Watched making={making} />}
      </ModalBody>
      <ModalFooter>
        {making.phase === "choosing" && <>
          <GuardedButton type="submit" form="dialog-form" variant={isDanger ? "danger" : "primary"} isDisabled={!orders}>{act}</GuardedButton>
          <Button variant="link" onClick={onClose}>{_("Cancel")}</Button>
        </>}
        {isRunning && <Button variant="secondary" onClick={stop}>{_("Stop")}</Button>}
        {making.phase === "over" && <CloseButton onClose={onClose} />}
        {making.phase === "over" && making.fault?.kind === "command" && making.made.length === 0 &&
          <Button variant="link" onClick={goBack}>{_("Back")}</Button>}
      </ModalFooter>
    </Modal>
  );
}

// Takes the focus, which was on a button that is gone.
function CloseButton({ onClose }: { onClose: () => void }) {
  const button = useRef<HTMLButtonElement>(null);
  useEffect(() => button.current?.focus(), []);
  return <Button ref={button} onClick={onClose}>{_("Close")}</Button>;
}

const kSteps: { [step: string]: string } = {
  "looking who may change": _("Looking who may change files"),
  judging: _("Judging templates"),
  rendering: _("Rendering"),
  reloading: _("Reloading"),
  probing: _("Probing"),
  asking: _("Asking servers"),
};

function Watched({ making }: { making: Making }) {
  const place = useRef<HTMLDivElement>(null);
  useEffect(() => place.current?.focus(), []);
  const isOver = making.phase === "over";
  const now = making.steps.find(({ isDone }) => !isDone);
  return (
    <div ref={place} tabIndex={-1} className="kelotls-watched">
      <div role="status" className="pf-v6-screen-reader">
        {isOver ? _("It is over.") : now ? stepName(now) : _("Working")}
      </div>
      {making.takesBack && !isOver && <Title headingLevel="h2" size="md">{_("What has failed is taken back")}</Title>}
      {(!isOver || (making.fault && making.steps.length > 0)) &&
        <List isPlain aria-label={_("Steps")} className="kelotls-steps">
          {making.steps.map(step => <ListItem key={step.step}><StepOf step={step} isOver={isOver} /></ListItem>)}
          {!isOver && !now && <ListItem><Signed mood="busy">{_("Working")}</Signed></ListItem>}
        </List>}
      {isOver && <Title headingLevel="h2" size="md">{_("What came of it")}</Title>}
      {making.fault && <FaultAlert fault={making.fault} />}
      {isOver && <Results made={making.made} />}
      {making.messages.length > 0 && <Messages messages={making.messages} />}
    </div>
  );
}

function stepName({ step }: Step): string {
  return kSteps[step] ?? plain(step);
}

function StepOf({ step, isOver }: { step: Step; isOver: boolean }) {
  const name = stepName(step);
  if (step.isDone) return <Signed mood="good">{name}: {_("done")}</Signed>;
  if (isOver) return <Signed mood="warning">{name}: {_("not finished")}</Signed>;
  return (
    <div className="kelotls-step">
      <Signed mood="busy">{name}: {_("running")}{step.subject && <> (<Plain text={step.subject} />)</>}</Signed>
      <Progress aria-label={name} value={step.done} max={step.all} size="sm" measureLocation="outside"
        label={cockpit.format(_("$0 of $1"), step.done, step.all)} valueText={cockpit.format(_("$0 of $1"), step.done, step.all)} />
    </div>
  );
}

// What is taken back may fail in the same way once more: it is said once.
export function Messages({ messages }: { messages: Message[] }) {
  const texts = new Map(messages.map(message => [message.text, message]));
  return (
    <List isPlain aria-label={_("Messages")}>
      {[...texts.values()].map(({ event, text }) => (
        <ListItem key={text}>
          {event === "note" ? <Plain text={text} lines /> : <Signed mood="warning"><Plain text={text} lines /></Signed>}
        </ListItem>
      ))}
    </List>
  );
}

