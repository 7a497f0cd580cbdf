// What a server offers against what its level asks for, as a picture that is a table.

import { List, ListItem } from "@patternfly/react-core";
import CheckIcon from "@patternfly/react-icons/dist/esm/icons/check-icon";
import MinusIcon from "@patternfly/react-icons/dist/esm/icons/minus-icon";
import PlusIcon from "@patternfly/react-icons/dist/esm/icons/plus-icon";
import QuestionIcon from "@patternfly/react-icons/dist/esm/icons/question-icon";
import cockpit from "cockpit";
import type { ReactNode } from "react";
import type { Probe } from "../documents";
import { Signed } from "../ui/Labels";
import { Moment } from "../ui/Moment";
import { Plain, plain } from "../ui/Plain";
import type { Mood } from "../ui/states";

const _ = cockpit.gettext;

interface Seen {
  version: string;
  answer: "accepted" | "refused" | "not-known";
  requested: "yes" | "no";
  reason?: string;
}

type Mark = "as-asked" | "extra" | "missing" | "not-known" | "refused";

const kMarks: { [mark in Mark]: { text: string; icon: ReactNode } } = {
  "as-asked": { text: _("asked for and offered"), icon: <CheckIcon /> },
  extra: { text: _("offered, not asked for"), icon: <PlusIcon /> },
  missing: { text: _("asked for, not offered"), icon: <MinusIcon /> },
  "not-known": { text: _("not known"), icon: <QuestionIcon /> },
  refused: { text: _("neither asked for nor offered"), icon: null },
};

function markOf({ answer, requested }: Seen): Mark {
  if (answer === "not-known") return "not-known";
  if (answer === "accepted") return requested === "yes" ? "as-asked" : "extra";
  return requested === "yes" ? "missing" : "refused";
}

interface MatrixProps {
  name: string;
  rowsName: string;
  columns: string[];
  rows: { name: string; seen: Seen[] }[];
}

function Matrix({ name, rowsName, columns, rows }: MatrixProps) {
  return (
    <div className="kelotls-matrix-place" tabIndex={0} role="group" aria-label={name}>
      <table className="kelotls-matrix" aria-label={name}>
        <thead>
          <tr><th scope="col">{rowsName}</th>{columns.map(column => <th key={column} scope="col">{column}</th>)}</tr>
        </thead>
        <tbody>
          {rows.map(row => (
            <tr key={row.name}>
              <th scope="row"><Plain text={row.name} /></th>
              {columns.map(column => {
                const seen = row.seen.find(({ version }) => version === column);
                return <td key={column}>{seen && <Cell seen={seen} />}</td>;
              })}
            </tr>
          ))}
        </tbody>
      </table>
    </div>
  );
}

function Cell({ seen }: { seen: Seen }) {
  const mark = markOf(seen);
  const { text, icon } = kMarks[mark];
  const told = seen.reason ? `${text}: ${plain(seen.reason)}` : text;
  return (
    <span className={`kelotls-mark kelotls-mark-${mark}`} title={told}>
      <span aria-hidden>{icon}</span>
      <span className="pf-v6-screen-reader">{told}</span>
    </span>
  );
}

function Legend() {
  return (
    <ul className="kelotls-legend" aria-label={_("Legend")}>
      {(Object.keys(kMarks) as Mark[]).map(mark => (
        <li key={mark}><span className={`kelotls-mark kelotls-mark-${mark}`} aria-hidden>{kMarks[mark].icon}</span> {kMarks[mark].text}</li>
      ))}
    </ul>
  );
}

// Rows in the order in which they come, each with what was seen of it in each version.
function rowsOf(seen: (Seen & { name: string })[]): MatrixProps["rows"] {
  const rows = new Map<string, Seen[]>();
  for (const one of seen) rows.set(one.name, [...(rows.get(one.name) ?? []), one]);
  return [...rows].map(([name, of]) => ({ name, seen: of }));
}

function columnsOf(versions: Seen[], seen: Seen[]): string[] {
  return versions.map(({ version }) => version).filter(version => seen.some(one => one.version === version));
}

const kVerdicts: { [verdict in Probe.Document["verdict"]]: { text: string; mood: Mood } } = {
  agrees: { text: _("All is as the level asks."), mood: "good" },
  "as-expected": { text: _("It differs only as is expected of this server."), mood: "good" },
  differs: { text: _("It differs from what the level asks."), mood: "bad" },
  "cannot-tell": { text: _("It does not say enough to be judged."), mood: "unknown" },
};

export function Survey({ survey }: { survey: Probe.Document }) {
  const versions: Seen[] = [...survey.versions];
  const suites = survey.suites.map(seen => ({ ...seen, name: seen.suite }));
  const groups = survey.groups.map(seen => ({ ...seen, name: seen.group }));
  return (
    <div className="kelotls-survey">
      <p><Signed mood={kVerdicts[survey.verdict].mood}>{kVerdicts[survey.verdict].text}</Signed></p>
      <p className="kelotls-subtle">{survey.target === "context"
        ? _("Asked was the context that the library makes for it on this machine, not a running server.")
        : <Plain text={cockpit.format(_("Asked was the server at $0"), survey.target)} />}</p>
      <Legend />
      <Matrix name={_("Protocol versions")} rowsName={_("Version")} columns={versions.map(({ version }) => version)}
        rows={[{ name: _("Protocol"), seen: versions }]} />
      <Matrix name={_("Cipher suites")} rowsName={_("Suite")} columns={columnsOf(versions, suites)} rows={rowsOf(suites)} />
      <Matrix name={_("Groups")} rowsName={_("Group")} columns={columnsOf(versions, groups)} rows={rowsOf(groups)} />
      <Remarks title={_("Differences")} remarks={survey.differences.map(({ what, text, expected }) => ({ what, text, expected }))} />
      <Remarks title={_("Not known")} remarks={survey["not-known"]} />
      {survey.notes.length > 0 && <>
        <h3>{_("Notes")}</h3>
        <List aria-label={_("Notes")}>{survey.notes.map(note => <ListItem key={note}><Plain text={note} /></ListItem>)}</List>
      </>}
      {survey.target !== "context" && survey.certificates.length > 0 && <>
        <h3>{_("Certificates")}</h3>
        <List aria-label={_("Certificates")}>
          {survey.certificates.map(certificate => (
            <ListItem key={certificate.kind + certificate.subject}>
              <Plain text={`${certificate.kind} ${certificate.bits}, ${certificate.subject}`} />
              {certificate["not-after"] && <>, {_("valid until")} <Moment utc={certificate["not-after"]} /></>}
            </ListItem>
          ))}
        </List>
      </>}
    </div>
  );
}

function Remarks({ title, remarks }: { title: string; remarks: { what: string; text: string; expected?: string }[] }) {
  if (remarks.length === 0) return null;
  return <>
    <h3>{title}</h3>
    <List aria-label={title}>
      {remarks.map(({ what, text, expected }, at) => (
        <ListItem key={at}>
          <strong><Plain text={what} /></strong>: <Plain text={text} />
          {expected !== undefined && <div><Plain text={cockpit.format(_("Expected of this server: $0"), expected)} /></div>}
        </ListItem>
      ))}
    </List>
  </>;
}
