// What came of a change for each service, as the command tells it.

import { Table, Tbody, Td, Th, Thead, Tr } from "@patternfly/react-table";
import cockpit from "cockpit";
import type { Apply, Set as SetDocument } from "../documents";
import { LevelLabel, Signed } from "../ui/Labels";
import { Plain } from "../ui/Plain";
import type { Mood } from "../ui/states";
import type { Made } from "./making";

const _ = cockpit.gettext;

type Applied = Pick<Apply.Document, "rendered" | "reloaders" | "probed" | "reload-fault">;
type Probed = Applied["probed"][number];

const kOutcomes: { [result in Probed["result"]]: { name: string; mood: Mood } } = {
  "in-force": { name: _("In force"), mood: "good" },
  failed: { name: _("Failed"), mood: "bad" },
  "not-run": { name: _("Not run: it was interrupted"), mood: "warning" },
  "not-seen": { name: _("Not known: its server does not say enough"), mood: "unknown" },
};

// Documents hold it under "apply", but that of apply itself.
function applied(document: unknown): Applied | null {
  const { apply, probed } = document as { apply?: Applied | null; probed?: unknown };
  return apply ?? (probed ? document as Applied : null);
}

function undone(document: unknown): Set<string> {
  const { services = [], apply } = document as Partial<SetDocument.Document> & { apply?: { undone?: { service: string }[] } };
  const flagged = Array.isArray(services) ? services.filter(service => service.undone).map(({ service }) => service) : [];
  return new Set([...flagged, ...(apply?.undone ?? []).map(({ service }) => service)]);
}

// Why it failed: of the service itself, its file, its reloader.
function reasons({ service, ...probed }: Probed, { rendered, reloaders, "reload-fault": fault }: Applied): string[] {
  const own = rendered.filter(file => file.service === service && file.fault).map(file => `${file.path}: ${file.fault}`);
  const ran = reloaders.filter(({ path }) => path.split("/").at(-1)!.split(".").slice(0, -1).join(".") === service)
    .flatMap(({ path, fault, "not-run": reason }) => (fault ?? reason ? [`${path}: ${fault ?? reason}`] : []));
  return [...own, ...ran, ...[fault, probed.fault, probed["not-seen"]].filter(text => text !== undefined)];
}

// Those of undo and redo hold one for each change that they take back.
function documentsIn(document: object): object[] {
  return "changes" in document && Array.isArray(document.changes) ? document.changes as object[] : [document];
}

export function Results({ made }: { made: Made[] }) {
  const rows = made.flatMap(({ document }) => documentsIn(document)).flatMap(document => {
    const all = applied(document);
    const taken = undone(document);
    return all ? all.probed.map(probed => ({ probed, reasons: reasons(probed, all), isUndone: taken.has(probed.service) })) : [];
  });
  if (rows.length === 0) return null;
  return (
    <Table role="table" aria-label={_("Results")} variant="compact">
      <Thead><Tr><Th>{_("Service")}</Th><Th>{_("Level")}</Th><Th>{_("Result")}</Th></Tr></Thead>
      <Tbody>
        {rows.map(({ probed, reasons, isUndone }) => (
          <Tr key={probed.service}>
            <Td dataLabel={_("Service")}><Plain text={probed.service} /></Td>
            <Td dataLabel={_("Level")}><LevelLabel name={probed["effective-level"].name} /></Td>
            <Td dataLabel={_("Result")}>
              <Signed mood={kOutcomes[probed.result].mood}>{kOutcomes[probed.result].name}</Signed>
              {isUndone && <div>{_("Its former level is stored again.")}</div>}
              {reasons.map(reason => <div key={reason}><Plain text={reason} lines /></div>)}
            </Td>
          </Tr>
        ))}
      </Tbody>
    </Table>
  );
}
