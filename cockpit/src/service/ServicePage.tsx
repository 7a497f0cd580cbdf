// One service: its level, what its server offers, its clients, and its files.

import {
  ActionList, ActionListGroup, ActionListItem, Breadcrumb, BreadcrumbItem, Button, Card, CardBody, CardHeader, CardTitle,
  DescriptionList, DescriptionListDescription, DescriptionListGroup, DescriptionListTerm, Grid, GridItem, PageSection, Skeleton, Spinner, Title,
} from "@patternfly/react-core";
import cockpit from "cockpit";
import { useId, useState } from "react";
import type { ReactNode } from "react";
import { run } from "../command";
import ApplyDialog from "../dialogs/ApplyDialog";
import { DiffText } from "../dialogs/Foreseen";
import LeaveDialog from "../dialogs/LeaveDialog";
import LevelDialog from "../dialogs/LevelDialog";
import { usePreview } from "../dialogs/usePreview";
import type { Show } from "../documents";
import { FaultAlert } from "../ui/FaultAlert";
import { LevelLabel, LevelOf, StateLabel } from "../ui/Labels";
import { Moment } from "../ui/Moment";
import { Plain } from "../ui/Plain";
import { useDialogs } from "../ui/dialogs";
import { GuardedButton } from "../ui/guarded";
import { address, go } from "../ui/location";
import { Clients } from "./Clients";
import { Survey } from "./Survey";
import "./service.css";

const _ = cockpit.gettext;

export default function ServicePage({ name }: { name: string }) {
  const { seen, fault } = usePreview(name, () => run("show", ["--", name]).then(({ document }) => document));
  const shownName = seen?.["display-name"] || name;
  return <>
    <PageSection hasBodyWrapper={false} className="kelotls-head">
      <Breadcrumb aria-label={_("Breadcrumb")}>
        <BreadcrumbItem to={address([])}>{_("TLS levels")}</BreadcrumbItem>
        <BreadcrumbItem isActive><Plain text={shownName} /></BreadcrumbItem>
      </Breadcrumb>
      <div className="kelotls-bar">
        <div>
          <Title headingLevel="h1"><Plain text={shownName} /></Title>
          {shownName !== name && <div className="kelotls-subtle"><Plain text={name} /></div>}
        </div>
        {seen && <Actions name={name} />}
      </div>
    </PageSection>
    <PageSection hasBodyWrapper={false}>
      {fault && <FaultAlert fault={fault} />}
      {!seen && !fault && <Skeleton screenreaderText={_("Reading")} height="20rem" />}
      {seen && <Cards details={seen} />}
    </PageSection>
  </>;
}

function Actions({ name }: { name: string }) {
  const { show, close } = useDialogs();
  return (
    <ActionList><ActionListGroup>
      <ActionListItem>
        <GuardedButton onClick={() => show(<LevelDialog services={[name]} onClose={close} />)}>{_("Change level")}</GuardedButton>
      </ActionListItem>
      <ActionListItem>
        <GuardedButton variant="secondary" onClick={() => show(<ApplyDialog services={[name]} onClose={close} />)}>{_("Apply")}</GuardedButton>
      </ActionListItem>
      <ActionListItem>
        <GuardedButton variant="secondary" isDanger onClick={() => show(<LeaveDialog service={name} onClose={close} onDone={() => go([])} />)}>{_("Leave")}</GuardedButton>
      </ActionListItem>
    </ActionListGroup></ActionList>
  );
}

function Part({ title, action, children }: { title: string; action?: ReactNode; children: ReactNode }) {
  const id = useId();
  return (
    <Card component="section" aria-labelledby={id} isFullHeight>
      <CardHeader actions={action ? { actions: action, hasNoOffset: true } : undefined}><CardTitle component="h2" id={id}>{title}</CardTitle></CardHeader>
      <CardBody>{children}</CardBody>
    </Card>
  );
}

function Cards({ details }: { details: Show.Document }) {
  return (
    <Grid hasGutter lg={6}>
      <GridItem><LevelPart details={details} /></GridItem>
      <GridItem><FilesPart details={details} /></GridItem>
      <GridItem lg={12}><OfferPart details={details} /></GridItem>
      <GridItem lg={12}><Part title={_("Clients")}><Clients name={details.service} /></Part></GridItem>
      <GridItem lg={12}><RenderedPart details={details} /></GridItem>
    </Grid>
  );
}

function Terms({ terms }: { terms: [string, ReactNode][] }) {
  return (
    <DescriptionList isHorizontal isCompact>
      {terms.filter(([, value]) => value !== null && value !== undefined && value !== "").map(([term, value]) => (
        <DescriptionListGroup key={term}>
          <DescriptionListTerm>{term}</DescriptionListTerm>
          <DescriptionListDescription>{value}</DescriptionListDescription>
        </DescriptionListGroup>
      ))}
    </DescriptionList>
  );
}

function LevelPart({ details }: { details: Show.Document }) {
  const { dated, server } = details;
  return (
    <Part title={_("Level")}>
      <Terms terms={[
        [_("Level"), <LevelOf stored={details["stored-level"]} effective={details["effective-level"]} />],
        [_("State"), <StateLabel state={details.state} />],
        [_("In force since"), details["in-force-since"] && <Moment utc={details["in-force-since"]} />],
        [_("Ends on"), dated && <Moment utc={dated.until} />],
        [_("Level after that"), dated && <LevelLabel name={dated.then.name} />],
        [_("Reason"), dated && <Plain text={dated.reason} />],
        [_("Asked"), server ? <Plain text={cockpit.format(_("its server at $0"), server.address)} /> : _("its files; no running server")],
        [_("Answer"), server?.text && <Plain text={server.text} />],
        [_("Fault"), (details.fault ?? dated?.fault) && <Plain text={(details.fault ?? dated?.fault)!} lines />],
      ]} />
      <p className="kelotls-more"><a href={address(["history"], { service: details.service })}>{_("History of this service")}</a></p>
    </Part>
  );
}

function path(file: { path: string; exists: boolean } | null, none: string): ReactNode {
  if (!file) return none;
  return <><span className="kelotls-path"><Plain text={file.path} /></span>{!file.exists && <> <strong>{_("missing")}</strong></>}</>;
}

function FilesPart({ details }: { details: Show.Document }) {
  const link = details["reloader-link"];
  return (
    <Part title={_("Reloader")}>
      <Terms terms={[
        [_("Program"), path(details.reloader, _("none"))],
        [_("Link"), path(link, _("none"))],
        [_("Leads to"), link && <span className="kelotls-path"><Plain text={link.target} /></span>],
        [_("Descriptor"), path(details.descriptor, _("none"))],
        [_("Descriptor's fault"), details.descriptor.fault && <Plain text={details.descriptor.fault} />],
      ]} />
    </Part>
  );
}

// Everything that it takes to answer is asked again when the appliance changes, and by the button.
function OfferPart({ details: { service } }: { details: Show.Document }) {
  const [round, setRound] = useState(0);
  const { seen, fault, isBusy } = usePreview(`${service}\0${round}`, () => run("probe", ["--deadline=60", "--", service]));
  return (
    <Part title={_("Offer")} action={<Button variant="secondary" isDisabled={isBusy} onClick={() => setRound(round + 1)}>{_("Ask again")}</Button>}>
      <div aria-busy={isBusy}>
        {isBusy && !seen && <Spinner size="lg" aria-label={_("Asking the server")} />}
        {fault && <FaultAlert fault={fault} />}
        {seen && <Survey survey={seen.document} />}
      </div>
    </Part>
  );
}

function RenderedPart({ details: { service, template, rendered, "effective-level": level } }: { details: Show.Document }) {
  return (
    <Part title={_("Rendered file")}>
      {template ? <>
        <Terms terms={[[_("Template"), path(template, "")], [_("Rendered file"), path(rendered, _("none"))]]} />
        {level.name !== "unusable" && <RenderedText service={service} level={level.name} />}
      </> : <p>{_("It has no template: its settings are those of the library's context.")}</p>}
    </Part>
  );
}

function RenderedText({ service, level }: { service: string; level: string }) {
  const { seen, fault, isBusy } = usePreview(`${service}\0${level}`, async () => {
    const [{ document: preview }, checked] = await Promise.all([
      run("render", [`--level=${level}`, `--preview=${service}`]),
      run("render", ["--check", "--", service]).catch(() => null),
    ]);
    return {
      given: "previews" in preview ? preview.previews[0]?.levels[0] : undefined,
      diff: checked && "services" in checked.document ? checked.document.services[0]?.diff : undefined,
    };
  });
  return (
    <div aria-busy={isBusy} className="kelotls-rendered">
      {fault && <FaultAlert fault={fault} />}
      {seen?.given?.fault !== undefined && <FaultAlert fault={{ kind: "command", error: seen.given.fault, advice: "" }} />}
      {seen?.given?.text !== undefined &&
        <figure aria-label={_("Rendered text")} className="kelotls-text" tabIndex={0}><Plain text={seen.given.text} lines /></figure>}
      {seen?.diff && <>
        <h3>{_("The file on the disk is another")}</h3>
        <DiffText name={_("Differences from the file on the disk")} text={seen.diff} />
      </>}
    </div>
  );
}
