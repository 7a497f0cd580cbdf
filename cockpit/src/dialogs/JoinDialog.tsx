// Lets the services of a registration join: of one that a package brings, or of a file of one's own.

import {
  Alert, Button, Checkbox, FormGroup, Label, List, ListItem, Radio, SearchInput, Tab, TabTitleText, Tabs, TextArea,
} from "@patternfly/react-core";
import cockpit from "cockpit";
import { useRef, useState } from "react";
import { run } from "../command";
import type { Catalogue, Join, Validate } from "../documents";
import { FaultAlert } from "../ui/FaultAlert";
import { Plain, plain } from "../ui/Plain";
import { ChangeDialog } from "./ChangeDialog";
import { Foreseen, Part } from "./Foreseen";
import { ConfirmationFields, confirmationArguments, foreseeingArguments, reasonArguments, useConfirmation } from "./confirmation";
import { placesOf } from "./jsonPlaces";
import type { Order } from "./making";
import { usePreview } from "./usePreview";

const _ = cockpit.gettext;

const kTypingMilliseconds = 400;

// Where the registration is: a file there, or the text for the standard input.
interface Source {
  file: string;
  input?: string;
}

interface Seen {
  verdict: Validate.Document;
  plan: Join.Document | null;
}

// With --replace, so that the plan tells what it would take the place of; without, that is refused.
async function foresee({ file, input }: Source, options: string[]): Promise<Seen> {
  const { document: verdict } = await run("validate", ["--", file], { input });
  if (!verdict.valid) return { verdict, plan: null };
  const { document: plan } = await run("join", [...options, "--replace", "--", file], { input });
  return { verdict, plan };
}

export default function JoinDialog({ onClose }: { onClose: () => void }) {
  const [tab, setTab] = useState<"catalogue" | "file">("catalogue");
  const [chosen, setChosen] = useState<string | null>(null);
  const [text, setText] = useState("");
  const [replaces, setReplaces] = useState(false);
  const [applies, setApplies] = useState(true);
  const [confirmation, setConfirmation] = useConfirmation(false);

  const source: Source | null = tab === "catalogue" ? (chosen === null ? null : { file: chosen })
    : text.trim() ? { file: "-", input: text } : null;
  const preview = usePreview(source && `${confirmation.isWanted}\0${source.file}\0${source.input ?? ""}`,
    () => foresee(source!, foreseeingArguments(confirmation)), tab === "file" ? kTypingMilliseconds : 0);
  const plan = preview.seen?.plan ?? null;
  const needsReplacing = plan?.services.some(({ replaced }) => replaced.length > 0) ?? false;
  const isReady = source !== null && plan !== null && (!needsReplacing || replaces);
  const names = plan?.services.map(({ service }) => service) ?? [];

  const orders = (): Order[] => [
    { command: "join", args: [...(needsReplacing ? ["--replace"] : []), ...confirmationArguments(confirmation), "--", source!.file], input: source!.input },
    ...(applies && !confirmation.isWanted ? [{ command: "apply" as const, args: [...reasonArguments(confirmation.reason), "--", ...names] }] : []),
  ];
  return (
    <ChangeDialog title={_("Join a service")} act={_("Join")} onClose={onClose} orders={isReady ? orders() : null}
      success={made => cockpit.format("confirm" in made[0].document ? _("$0 joined, waits for confirmation") : _("$0 joined"), plain(names.join(", ")))}>
      <Tabs activeKey={tab} onSelect={(_event, key) => setTab(key as typeof tab)} aria-label={_("Where the registration is")}>
        <Tab eventKey="catalogue" title={<TabTitleText>{_("Catalogue")}</TabTitleText>}>
          <CatalogueChoice chosen={chosen} onChoose={setChosen} />
        </Tab>
        <Tab eventKey="file" title={<TabTitleText>{_("File")}</TabTitleText>}>
          <FileChoice text={text} onChange={setText} verdict={tab === "file" ? preview.seen?.verdict ?? null : null} />
        </Tab>
      </Tabs>
      <Foreseen preview={preview} nothing={_("Choose a registration to see what would join.")}>
        {({ verdict, plan }) => <>
          {tab === "catalogue" && <Faults verdict={verdict} />}
          {plan && <PlanPart plan={plan} />}
        </>}
      </Foreseen>
      {needsReplacing &&
        <Checkbox id="replace" label={_("Take the place of what joined before")} isChecked={replaces} onChange={(_event, value) => setReplaces(value)} />}
      <Checkbox id="apply-now" label={_("Render and reload now")} isChecked={applies || confirmation.isWanted} isDisabled={confirmation.isWanted}
        description={confirmation.isWanted ? _("What is to be confirmed has to be in force.") : undefined}
        onChange={(_event, value) => setApplies(value)} />
      <ConfirmationFields value={confirmation} onChange={setConfirmation} />
    </ChangeDialog>
  );
}

function PlanPart({ plan }: { plan: Join.Document }) {
  return (
    <Part title={_("What joins")}>
      <List aria-label={_("What joins")}>
        {plan.services.map(({ service, new: isNew, probe, dropped, replaced }) => (
          <ListItem key={service}>
            <strong><Plain text={service} /></strong>{isNew ? "" : ` ${_("joins again, and keeps its level")}`}
            {probe && <div><Plain text={cockpit.format(_("Its server is asked at $0"), probe.address)} /></div>}
            {dropped.map(({ kind, path, removed }) => (
              <div key={kind}><Plain text={cockpit.format(kind === "template" ? _("It has no template any more: $0") : _("It has no reloader any more: $0"),
                [path, removed].filter(Boolean).join(", "))} /></div>
            ))}
            {replaced.map(({ kind, from, to }) => (
              <div key={kind}><Plain text={cockpit.format(kind === "template" ? _("Another template: $0 in place of $1")
                : _("Another reloader: $0 in place of $1"), to, from)} /></div>
            ))}
          </ListItem>
        ))}
      </List>
    </Part>
  );
}

// The catalogue

function CatalogueChoice({ chosen, onChoose }: { chosen: string | null; onChoose: (file: string) => void }) {
  const [filter, setFilter] = useState("");
  const { seen, fault } = usePreview("catalogue", () => run("catalogue"));
  const sought = filter.toLowerCase();
  const found = (seen?.document.registrations ?? []).filter(({ name, services }) =>
    [name, ...services.flatMap(service => [service.service, service["display-name"]])].some(text => text.toLowerCase().includes(sought)));
  return (
    <div className="kelotls-choice">
      {fault && <FaultAlert fault={fault} />}
      <SearchInput aria-label={_("Filter registrations")} placeholder={_("Filter registrations")} value={filter}
        onChange={(_event, value) => setFilter(value)} onClear={() => setFilter("")} />
      {seen && found.length === 0 && <p>{cockpit.format(_("No registration in $0"), seen.document.directory)}</p>}
      <div role="radiogroup" aria-label={_("Registrations")} className="kelotls-registrations">
        {found.map(registration => (
          <Radio key={registration.name} id={`registration-${registration.name}`} name="registration" label={plain(registration.name)}
            isChecked={chosen === registration.file} onChange={() => onChoose(registration.file)}
            description={<RegistrationText registration={registration} />} />
        ))}
      </div>
    </div>
  );
}

function RegistrationText({ registration: { services, faults } }: { registration: Catalogue.Document["registrations"][number] }) {
  return <>
    {services.map(({ service, "display-name": name, joined }) => (
      <span key={service} className="kelotls-registered"><Plain text={name || service} />{joined && <> <Label isCompact color="green">{_("joined")}</Label></>} </span>
    ))}
    {faults.map(({ path, text }) => <span key={path + text} className="kelotls-fault"><Plain text={`${path}: ${text}`} /> </span>)}
  </>;
}

function Faults({ verdict: { faults, warnings } }: { verdict: Validate.Document }) {
  return <>
    <FaultList title={_("Faults")} variant="danger" faults={faults} />
    <FaultList title={_("Warnings")} variant="warning" faults={warnings} />
  </>;
}

interface FaultListProps {
  title: string;
  variant: "danger" | "warning";
  faults: Validate.Fault[];
  text?: string;
  onShow?: (from: number, to: number) => void;
}

// With the text, each is at its place in it.
function FaultList({ title, variant, faults, text, onShow }: FaultListProps) {
  if (faults.length === 0) return null;
  const places = text === undefined ? [] : placesOf(text, faults);
  return (
    <Alert isInline component="p" variant={variant} title={title}>
      <List isPlain aria-label={title}>
        {faults.map((fault, at) => (
          <ListItem key={at}>
            {places[at] && <>{cockpit.format(_("Line $0"), places[at].line)}{", "}</>}
            <code><Plain text={fault.path} /></code>: <Plain text={fault.text} lines />
            {text !== undefined && places[at] && onShow && <div>
              <code className="kelotls-excerpt"><Plain text={text.slice(places[at].from, places[at].to).trim()} /></code>{" "}
              <Button variant="link" isInline onClick={() => onShow(places[at].from, places[at].to)}>
                {cockpit.format(_("Show line $0"), places[at].line)}
              </Button>
            </div>}
          </ListItem>
        ))}
      </List>
    </Alert>
  );
}

// A file of one's own

function FileChoice({ text, onChange, verdict }: { text: string; onChange: (text: string) => void; verdict: Validate.Document | null }) {
  const area = useRef<HTMLTextAreaElement>(null);
  const show = (from: number, to: number) => {
    area.current?.focus();
    area.current?.setSelectionRange(from, to);
  };
  return (
    <div className="kelotls-choice">
      <FormGroup fieldId="registration-file" label={_("Registration file")}>
        <input id="registration-file" type="file" accept=".json,application/json"
          onChange={async ({ target }) => target.files?.[0] && onChange(await target.files[0].text())} />
      </FormGroup>
      <FormGroup fieldId="registration-text" label={_("Registration")}>
        <TextArea id="registration-text" ref={area} value={text} rows={10} resizeOrientation="vertical" spellCheck={false}
          className="kelotls-source" onChange={(_event, value) => onChange(value)}
          validated={verdict && !verdict.valid ? "error" : "default"} />
      </FormGroup>
      {verdict && <>
        <FaultList title={_("Faults")} variant="danger" faults={verdict.faults} text={text} onShow={show} />
        <FaultList title={_("Warnings")} variant="warning" faults={verdict.warnings} text={text} onShow={show} />
      </>}
    </div>
  );
}
