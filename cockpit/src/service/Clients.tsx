// Who the recorded clients of a service are, and whom each level would lose.

import { EmptyState, EmptyStateBody } from "@patternfly/react-core";
import { Table, Tbody, Td, Th, Thead, Tr } from "@patternfly/react-table";
import cockpit from "cockpit";
import { run } from "../command";
import type { Fault } from "../command";
import type { ClientsJudge, ClientsShow } from "../documents";
import { usePreview } from "../dialogs/usePreview";
import { FaultAlert } from "../ui/FaultAlert";
import { LevelLabel } from "../ui/Labels";
import { Moment } from "../ui/Moment";
import { Plain, plain } from "../ui/Plain";

const _ = cockpit.gettext;

// The exit status that says that there is no record.
const kCannotTell = 6;
const kLevels = ["modern", "intermediate", "old"] as const;

interface Asked {
  shown: ClientsShow.Document;
  judged: ClientsJudge.Document[];
}

async function ask(name: string): Promise<Asked> {
  const { document: shown } = await run("clients show", ["--", name]);
  const judged: ClientsJudge.Document[] = [];
  for (const level of kLevels.filter(level => level !== shown.today.name)) {
    judged.push((await run("clients judge", ["--", name, level])).document);
  }
  return { shown, judged };
}

export function Clients({ name }: { name: string }) {
  const { seen, fault, isBusy } = usePreview(name, () => ask(name));
  if (fault?.kind === "command" && fault.code === kCannotTell) return <NoRecord fault={fault} />;
  return (
    <div aria-busy={isBusy}>
      {fault && <FaultAlert fault={fault} />}
      {seen && <Recorded {...seen} />}
    </div>
  );
}

function NoRecord({ fault }: { fault: Fault }) {
  return (
    <EmptyState variant="xs" headingLevel="h3" titleText={_("No record of clients is kept")}>
      <EmptyStateBody>
        <p><Plain text={fault.error} /></p>
        {fault.advice && <p><code><Plain text={fault.advice} /></code></p>}
      </EmptyStateBody>
    </EmptyState>
  );
}

function Recorded({ shown, judged }: Asked) {
  const { record, "by-protocol": versions } = shown;
  return (
    <div className="kelotls-clients">
      <p>
        {cockpit.format(cockpit.ngettext("$0 connection on record", "$0 connections on record", record.connections), record.connections)},{" "}
        {_("since")} <Moment utc={record.since} />{record["left-out"].connections > 0 && <>, {cockpit.format(_("$0 left out"), record["left-out"].connections)}</>}
      </p>
      <Bars name={_("Connections by version")} rows={versions.map(row => ({ name: row["newest-protocol"], value: row.connections }))} />
      <Table role="table" aria-label={_("Clients by version")} variant="compact">
        <Thead><Tr><Th>{_("Newest version offered")}</Th><Th>{_("Clients")}</Th><Th>{_("Connections")}</Th></Tr></Thead>
        <Tbody>{versions.map(({ "newest-protocol": version, clients, connections }) => (
          <Tr key={version}>
            <Td dataLabel={_("Newest version offered")}><Plain text={version} /></Td>
            <Td dataLabel={_("Clients")}>{clients}</Td>
            <Td dataLabel={_("Connections")}>{connections}</Td>
          </Tr>
        ))}</Tbody>
      </Table>
      <Table role="table" aria-label={_("What other levels would lose")} variant="compact">
        <Thead><Tr><Th>{_("Level")}</Th><Th>{_("Clients lost")}</Th><Th>{_("Their connections")}</Th><Th>{_("From")}</Th></Tr></Thead>
        <Tbody>{judged.map(({ level, all, addresses, verdict }) => (
          <Tr key={level.name}>
            <Td dataLabel={_("Level")}><LevelLabel name={level.name ?? ""} /></Td>
            <Td dataLabel={_("Clients lost")}>{verdict === "not-known" ? _("not known") : cockpit.format(_("$0 of $1"), all["lost-clients"], all.clients)}</Td>
            <Td dataLabel={_("Their connections")}>{cockpit.format(_("$0 of $1"), all["lost-connections"], all.connections)}</Td>
            <Td dataLabel={_("From")}><Plain text={addresses.join(", ")} /></Td>
          </Tr>
        ))}</Tbody>
      </Table>
      {shown["about-text"] && <p className="kelotls-subtle"><Plain text={shown["about-text"]} /></p>}
    </div>
  );
}

const kRow = 28;
const kNameWidth = 90;
const kBarWidth = 300;

// The table beside it tells the same; this is for who sees it.
function Bars({ name, rows }: { name: string; rows: { name: string; value: number }[] }) {
  const most = Math.max(1, ...rows.map(({ value }) => value));
  const told = rows.map(row => `${plain(row.name)}: ${row.value}`).join(", ");
  return (
    <svg role="img" aria-label={`${name}: ${told}`} className="kelotls-bars" viewBox={`0 0 ${kNameWidth + kBarWidth + 60} ${kRow * rows.length}`}>
      {rows.map((row, at) => {
        const width = Math.max(2, kBarWidth * row.value / most);
        return (
          <g key={row.name} transform={`translate(0 ${at * kRow})`}>
            <text x={kNameWidth - 8} y={kRow / 2} textAnchor="end" dominantBaseline="central">{plain(row.name)}</text>
            <rect x={kNameWidth} y={4} width={width} height={kRow - 8} rx={3} />
            <text x={kNameWidth + width + 6} y={kRow / 2} dominantBaseline="central">{row.value}</text>
          </g>
        );
      })}
    </svg>
  );
}
