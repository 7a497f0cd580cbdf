// Who changed what, the last change first, and the way back.

import { Button, EmptyState, SearchInput, Skeleton, Toolbar, ToolbarContent, ToolbarItem } from "@patternfly/react-core";
import { Table, Tbody, Td, Th, Thead, Tr } from "@patternfly/react-table";
import HistoryIcon from "@patternfly/react-icons/dist/esm/icons/history-icon";
import LockIcon from "@patternfly/react-icons/dist/esm/icons/lock-icon";
import RedoIcon from "@patternfly/react-icons/dist/esm/icons/redo-icon";
import UndoIcon from "@patternfly/react-icons/dist/esm/icons/undo-icon";
import cockpit from "cockpit";
import { memo, useMemo, useState } from "react";
import type { History } from "../documents";
import { useLevels } from "../store";
import { useDialogs } from "../ui/dialogs";
import { FaultAlert } from "../ui/FaultAlert";
import { GuardedButton } from "../ui/guarded";
import { Arrow, Signed } from "../ui/Labels";
import { replace, usePlace } from "../ui/location";
import { Moment } from "../ui/Moment";
import { usePage } from "../ui/paging";
import { Plain } from "../ui/Plain";
import { kDefaultLevel, kResults, levelName, subjectName } from "../ui/states";
import { UndoDialog } from "./UndoDialog";

const _ = cockpit.gettext;

type Change = History.Document["changes"][number];

const kShownOfOne = 3;

export function HistoryTable() {
  const { history, status } = useLevels();
  const { path, options } = usePlace();
  const { show, close } = useDialogs();
  const wanted = options.service ?? "";
  const changes = useMemo(() => [...history.document?.changes ?? []].reverse().filter(({ changes: parts }) => !wanted ||
    parts.some(({ service }) => service === kDefaultLevel ? false : service.includes(wanted))), [history.document, wanted]);
  const { shown, pages } = usePage(changes);

  if (!history.document) {
    return history.fault ? <FaultAlert fault={history.fault} /> : <Skeleton screenreaderText={_("Reading the history")} />;
  }
  if (status.document?.["history-known"] === false) {
    return <EmptyState headingLevel="h2" icon={LockIcon} titleText={_("Only root may read the history")} />;
  }
  return (
    <>
      <Toolbar inset={{ default: "insetNone" }}>
        <ToolbarContent>
          <ToolbarItem>
            <SearchInput aria-label={_("Filter by service")} placeholder={_("Filter by service")} value={wanted}
              onChange={(_event, service) => replace(path, service ? { service } : {})} onClear={() => replace(path, {})}
              resetButtonLabel={_("Clear the service")} />
          </ToolbarItem>
          <ToolbarItem>
            <GuardedButton variant="secondary" icon={<UndoIcon />} onClick={() => show(<UndoDialog command="undo" onClose={close} />)}>
              {_("Undo last change")}
            </GuardedButton>
          </ToolbarItem>
          <ToolbarItem>
            <GuardedButton variant="secondary" icon={<RedoIcon />} onClick={() => show(<UndoDialog command="redo" onClose={close} />)}>
              {_("Redo")}
            </GuardedButton>
          </ToolbarItem>
          <ToolbarItem variant="pagination" align={{ default: "alignEnd" }}>{pages("top", _("changes"))}</ToolbarItem>
        </ToolbarContent>
      </Toolbar>
      {changes.length === 0 ?
        <EmptyState headingLevel="h2" icon={HistoryIcon} titleText={wanted ? _("No change of such a service") : _("Nothing was changed yet.")} /> :
        <Table role="table" aria-label={_("History")} variant="compact">
          <Thead>
            <Tr>
              <Th>{_("Time")}</Th><Th>{_("Who")}</Th><Th>{_("Command")}</Th><Th>{_("Service")}</Th><Th>{_("Level")}</Th>
              <Th>{_("Result")}</Th><Th>{_("Reason")}</Th>
            </Tr>
          </Thead>
          <Tbody>{shown.map(change => <Row key={change.id} change={change} />)}</Tbody>
        </Table>}
      {pages("bottom", _("changes"))}
    </>
  );
}

// One change of many services is one row, with a line for each of the first.
const Row = memo(function Row({ change }: { change: Change }) {
  const [isWhole, setWhole] = useState(false);
  const parts = isWhole ? change.changes : change.changes.slice(0, kShownOfOne);
  const others = change.changes.length - parts.length;
  return (
    <Tr>
      <Td dataLabel={_("Time")} modifier="nowrap"><Moment utc={change.time} /></Td>
      <Td dataLabel={_("Who")}><Who change={change} /></Td>
      <Td dataLabel={_("Command")}>{change.command === "outside" ? _("outside") : change.command}</Td>
      <Td dataLabel={_("Service")}>
        {parts.map(({ service }) => <div key={service}><Plain text={subjectName(service)} /></div>)}
        {others > 0 && <Button variant="link" isInline onClick={() => setWhole(true)}>
          {cockpit.format(cockpit.ngettext("$0 more", "$0 more", others), others)}
        </Button>}
      </Td>
      <Td dataLabel={_("Level")}>
        {parts.map(({ service, from, to, until, then }) => <div key={service}>
          {from && levelName(from)} {to && <><Arrow /> {levelName(to)}</>}
          {until && <span className="kelotls-subtle"> {_("until")} <Moment utc={until} />
            {then && <> <Arrow /> {levelName(then)}</>}</span>}
        </div>)}
      </Td>
      <Td dataLabel={_("Result")}>
        <Signed mood={kResults[change.result].mood}>{kResults[change.result].name}</Signed>
        {change.settled && <div className="kelotls-subtle">
          {change.settled.command}, <Plain text={change.settled.who.sudo ?? change.settled.who.user} />
        </div>}
      </Td>
      <Td dataLabel={_("Reason")}>{change.reason && <Plain text={change.reason} />}</Td>
    </Tr>
  );
});

function Who({ change: { who } }: { change: Change }) {
  const person = who.sudo ?? who.login;
  return (
    <>
      <Plain text={person ?? who.user} />
      {person && person !== who.user && <div className="kelotls-subtle">{_("as")} <Plain text={who.user} /></div>}
    </>
  );
}
