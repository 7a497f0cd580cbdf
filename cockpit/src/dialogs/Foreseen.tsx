// What a change would do: to clients, files, reloaders, and what OpenSSL of this machine leaves of it.

import { Alert, ExpandableSection, List, ListItem, Spinner, Title } from "@patternfly/react-core";
import { Table, Tbody, Td, Th, Thead, Tr } from "@patternfly/react-table";
import cockpit from "cockpit";
import { useId, useState } from "react";
import type { ReactNode } from "react";
import type { Apply, ClientsJudge, Explain } from "../documents";
import { FaultAlert } from "../ui/FaultAlert";
import { Losses } from "../ui/Losses";
import type { Loss } from "../ui/Losses";
import { Plain, plain } from "../ui/Plain";
import { moment } from "../ui/time";
import type { Preview } from "./usePreview";

const _ = cockpit.gettext;

type Rendered = Apply.Document["rendered"];
type Reloaders = Apply.Document["reloaders"];

// Many are not shown all at once.
const kMany = 20;

interface ForeseenProps<Seen> {
  preview: Preview<Seen>;
  // Stands where nothing is chosen.
  nothing?: string;
  children: (seen: Seen) => ReactNode;
}

export function Foreseen<Seen>({ preview: { seen, fault, isBusy }, nothing, children }: ForeseenProps<Seen>) {
  const isEmpty = !seen && !fault && !isBusy;
  return (
    <section aria-label={_("Preview")} aria-busy={isBusy} className="kelotls-preview">
      {isEmpty && nothing && <p>{nothing}</p>}
      {isBusy && !seen && <Spinner size="lg" aria-label={_("Looking what would change")} />}
      {fault && <FaultAlert fault={fault} />}
      {seen && children(seen)}
    </section>
  );
}

export function Part({ title, children }: { title: string; children: ReactNode }) {
  const id = useId();
  return (
    <section aria-labelledby={id} className="kelotls-part">
      <Title id={id} headingLevel="h2" size="md">{title}</Title>
      {children}
    </section>
  );
}

export function ClientsPart({ losses, judged }: { losses: Loss[]; judged: ClientsJudge.Document | null }) {
  const lost = alike(judged?.clients.filter(client => client.lost) ?? []);
  return (
    <Part title={_("Clients")}>
      {losses.length === 0 ? <p>{_("No record of clients is kept, so nobody knows who would be lost.")}</p> : <Losses losses={losses} />}
      {judged?.["about-text"] && <p><Plain text={judged["about-text"]} /></p>}
      {lost.length > 0 &&
        <Table role="table" aria-label={_("Clients that would be lost")} variant="compact">
          <Thead><Tr><Th>{_("Client")}</Th><Th modifier="fitContent">{_("Connections")}</Th><Th>{_("From")}</Th><Th>{_("Last seen")}</Th><Th>{_("Why")}</Th></Tr></Thead>
          <Tbody>{lost.map(client => (
            <Tr key={client.key}>
              <Td dataLabel={_("Client")}><Plain text={client.name} /></Td>
              <Td dataLabel={_("Connections")}>{client.connections}</Td>
              <Td dataLabel={_("From")} modifier={client.from.includes(",") ? "breakWord" : "fitContent"}>{client.from ? <Plain text={client.from} /> : _("not kept")}</Td>
              <Td dataLabel={_("Last seen")}>{moment(client.last)}</Td>
              <Td dataLabel={_("Why")}><Plain text={client.why} /></Td>
            </Tr>
          ))}</Tbody>
        </Table>}
    </Part>
  );
}

interface Lost {
  key: string;
  name: string;
  from: string;
  why: string;
  last: string;
  connections: number;
}

// Those that look the same to people are one row, although their hellos differ.
function alike(clients: ClientsJudge.Document["clients"]): Lost[] {
  const rows = new Map<string, Lost>();
  for (const client of clients) {
    const name = clientName(client);
    const from = client.addresses.join(", ");
    const why = client.then && !client.then.answered ? client.then.text : "";
    const key = [name, from, why].join("\0");
    const row = rows.get(key) ?? { key, name, from, why, last: client.last, connections: 0 };
    row.connections += client.connections.all;
    row.last = row.last > client.last ? row.last : client.last;
    rows.set(key, row);
  }
  return [...rows.values()].sort((one, other) => other.connections - one.connections);
}

function clientName(client: { names: string[]; "newest-protocol": string }): string {
  return client.names.length > 0 ? client.names.join(", ")
    : cockpit.format(_("unknown, offers up to $0"), client["newest-protocol"]);
}

export function FilesPart({ rendered }: { rendered: Rendered }) {
  const [all, setAll] = useState(false);
  const changed = rendered.filter(({ change }) => change !== "none");
  return (
    <Part title={_("Files")}>
      {changed.length === 0 && <p>{_("No rendered file changes.")}</p>}
      {changed.slice(0, all ? undefined : kMany).map(file => file.fault !== undefined
        ? <Alert key={file.path} isInline component="p" variant="danger" title={plain(cockpit.format(_("$0 cannot be rendered"), file.service))}>
          <Plain text={file.fault} lines />
        </Alert>
        : <Differences key={file.path} path={file.path} text={file.diff ?? ""} />)}
      {changed.length > kMany && !all && <More count={changed.length - kMany} onClick={() => setAll(true)} />}
    </Part>
  );
}

function More({ count, onClick }: { count: number; onClick: () => void }) {
  return <button type="button" className="pf-v6-c-button pf-m-link pf-m-inline" onClick={onClick}>
    {cockpit.format(cockpit.ngettext("$0 more", "$0 more", count), count)}
  </button>;
}

export function Differences({ path, text, isOpen = false }: { path: string; text: string; isOpen?: boolean }) {
  const [isExpanded, setExpanded] = useState(isOpen);
  const name = cockpit.format(_("Differences of $0"), plain(path));
  return (
    <ExpandableSection toggleText={name} isExpanded={isExpanded} onToggle={(_event, expanded) => setExpanded(expanded)}>
      <DiffText name={name} text={text} />
    </ExpandableSection>
  );
}

// Added and removed lines are told by their sign too, as in any diff.
export function DiffText({ name, text }: { name: string; text: string }) {
  return (
    <figure aria-label={name} className="kelotls-text" tabIndex={0}>
      {text.replace(/\n$/, "").split("\n").map((line, at) => (
        <div key={at} className={/^(\+\+\+|---)/.test(line) ? "kelotls-diff-head" : line.startsWith("+") ? "kelotls-diff-added"
          : line.startsWith("-") ? "kelotls-diff-removed" : line.startsWith("@@") ? "kelotls-diff-head" : undefined}>
          {line ? <Plain text={line} lines /> : " "}
        </div>
      ))}
    </figure>
  );
}

export function ReloadersPart({ reloaders, fault }: { reloaders: Reloaders; fault?: string }) {
  const [all, setAll] = useState(false);
  return (
    <Part title={_("Reloaders")}>
      {fault && <Alert isInline component="p" variant="danger" title={plain(fault)} />}
      {reloaders.length === 0 ? <p>{_("No reloader will run.")}</p>
        : <List isPlain aria-label={_("Reloaders that will run")}>
          {reloaders.slice(0, all ? undefined : kMany).map(({ path, fault: reason }) => (
            <ListItem key={path}><Plain text={path} />{reason && <>: <strong><Plain text={reason} /></strong></>}</ListItem>
          ))}
        </List>}
      {reloaders.length > kMany && !all && <More count={reloaders.length - kMany} onClick={() => setAll(true)} />}
    </Part>
  );
}

export function MachinePart({ explained }: { explained: Explain.Document }) {
  return (
    <Part title={_("This machine")}>
      {explained.differences.length === 0
        ? <p>{cockpit.format(_("$0 gives all that the level asks for."), explained.openssl)}</p>
        : <>
          <p>{cockpit.format(_("$0 differs from what the level asks for:"), explained.openssl)}</p>
          <List aria-label={_("What OpenSSL of this machine does not give")}>
            {explained.differences.map(({ what, kind, text }) =>
              <ListItem key={what + kind}><Plain text={what} />: <Plain text={text} /></ListItem>)}
          </List>
        </>}
      {explained["oldest-clients"].length > 0 &&
        <p><Plain text={cockpit.format(_("Oldest clients that still connect: $0"), explained["oldest-clients"].join(", "))} /></p>}
    </Part>
  );
}
