// The table of services: filtered, sorted, in pages, with what can be done to each.

import {
  Button, Checkbox, EmptyState, EmptyStateActions, EmptyStateBody, EmptyStateFooter, SearchInput, Skeleton,
  Toolbar, ToolbarContent, ToolbarGroup, ToolbarItem,
} from "@patternfly/react-core";
import { Table, Tbody, Td, Th, Thead, Tr } from "@patternfly/react-table";
import CubesIcon from "@patternfly/react-icons/dist/esm/icons/cubes-icon";
import SearchIcon from "@patternfly/react-icons/dist/esm/icons/search-icon";
import cockpit from "cockpit";
import { memo, useCallback, useDeferredValue, useEffect, useMemo, useRef, useState } from "react";
import JoinDialog from "../dialogs/JoinDialog";
import LevelDialog from "../dialogs/LevelDialog";
import { useLevels } from "../store";
import { useDialogs } from "../ui/dialogs";
import { GuardedButton } from "../ui/guarded";
import { Arrow, LevelLabel, LevelOf, StateLabel } from "../ui/Labels";
import { address, replace, usePlace } from "../ui/location";
import { Moment } from "../ui/Moment";
import { usePage } from "../ui/paging";
import { Plain, plain } from "../ui/Plain";
import { kLevels, kStates, wantsAttention } from "../ui/states";
import type { Service, State } from "../ui/states";
import { Choice } from "./Choice";
import { RowActions } from "./RowActions";

const _ = cockpit.gettext;

type Column = "name" | "level" | "state";

export function Services() {
  const { list } = useLevels();
  const all = list.document?.services;
  const { options } = usePlace();
  const { text, setText } = useFilterText();
  const wanted = useDeferredValue(text);
  const found = useMemo(() => filtered(all ?? [], wanted, options.level, options.state), [all, wanted, options.level, options.state]);
  const sorted = useMemo(() => inOrder(found, options.sort as Column, options.dir === "desc"), [found, options.sort, options.dir]);
  const { shown, pages } = usePage(sorted);
  const { chosen, choose, chooseAll, forget } = useSelection(all);
  const { show, close } = useDialogs();

  const ask = (changed: { [name: string]: string }) => {
    const { page: _page, ...rest } = { ...options, ...changed };
    replace([], Object.fromEntries(Object.entries(rest).filter(([, value]) => value)));
  };
  const clear = () => {
    setText("");
    replace([], {});
  };
  const sorting = (column: Column, columnIndex: number) => ({
    columnIndex,
    sortBy: {
      index: ["name", "level", "state"].indexOf(options.sort ?? "name"),
      direction: options.dir === "desc" ? "desc" as const : "asc" as const,
    },
    onSort: (_event: unknown, _index: number, direction: string) => ask({ sort: column, dir: direction }),
  });
  const isFiltered = Boolean(text || options.level || options.state);

  if (!all) {
    return list.fault ? null : <Skeletons />;
  }
  if (all.length === 0) return <NobodyJoined />;
  return (
    <>
      <Toolbar role="search" aria-label={_("Filter services")} inset={{ default: "insetNone" }}>
        <ToolbarContent>
          <ToolbarItem>
            <SearchInput aria-label={_("Filter by name")} placeholder={_("Filter by name")} value={text}
              onChange={(_event, value) => setText(value)} onClear={() => setText("")}
              resetButtonLabel={_("Clear the name")} />
          </ToolbarItem>
          <ToolbarGroup variant="filter-group">
            <ToolbarItem>
              <Choice name={_("Level")} chosen={options.level ?? ""} onChoose={level => ask({ level })}
                choices={(["modern", "intermediate", "old", "unusable", "default"] as const).map(
                  level => [level, level === "default" ? _("follows the default level") : kLevels[level]])} />
            </ToolbarItem>
            <ToolbarItem>
              <Choice name={_("State")} chosen={options.state ?? ""} onChoose={state => ask({ state })}
                choices={[["attention", _("Wants attention")], ...Object.entries(kStates).map(
                  ([state, { name }]): [string, string] => [state, name])]} />
            </ToolbarItem>
          </ToolbarGroup>
          {isFiltered &&
            <ToolbarItem><Button variant="link" onClick={clear}>{_("Clear all filters")}</Button></ToolbarItem>}
          {chosen.size > 0 &&
            <ToolbarItem>
              <GuardedButton variant="secondary"
                onClick={() => show(<LevelDialog services={[...chosen]} onClose={() => { forget(); close(); }} />)}>
                {cockpit.format(cockpit.ngettext("Change level of $0 service", "Change level of $0 services", chosen.size), chosen.size)}
              </GuardedButton>
            </ToolbarItem>}
          <ToolbarItem variant="pagination" align={{ default: "alignEnd" }}>{pages("top", _("services"))}</ToolbarItem>
        </ToolbarContent>
      </Toolbar>
      <div role="status" className={isFiltered ? "kelotls-subtle" : "pf-v6-screen-reader"}>
        {cockpit.format(cockpit.ngettext("$0 of $1 service", "$0 of $1 services", all.length), sorted.length, all.length)}
      </div>
      {sorted.length === 0 ? <NobodyFound onClear={clear} /> :
        <Table role="table" aria-label={_("Services")} variant="compact" className="kelotls-services">
          <Thead>
            <Tr>
              <Th className="pf-v6-c-table__check">
                <Checkbox id="select-all" aria-label={_("Select all on this page")}
                  isChecked={shown.every(({ service }) => chosen.has(service)) || (shown.some(({ service }) => chosen.has(service)) ? null : false)}
                  onChange={(_event, isChosen) => chooseAll(shown, isChosen)} />
              </Th>
              <Th sort={sorting("name", 0)} width={25} modifier="nowrap">{_("Service")}</Th>
              <Th sort={sorting("level", 1)} modifier="nowrap">{_("Level")}</Th>
              <Th sort={sorting("state", 2)} width={30} modifier="nowrap">{_("State")}</Th>
              <Th>{_("Until")}</Th>
              <Th screenReaderText={_("Actions")} />
            </Tr>
          </Thead>
          <Tbody>
            {shown.map(service => <Row key={service.service} service={service} isChosen={chosen.has(service.service)} choose={choose} />)}
          </Tbody>
        </Table>}
      {pages("bottom", _("services"))}
    </>
  );
}

// What is typed shows at once; the address, which tells of changes a little later, follows.
function useFilterText() {
  const { path, options } = usePlace();
  const kept = options.name ?? "";
  const [text, setText] = useState(kept);
  const written = useRef(kept);
  useEffect(() => {
    // Somebody went elsewhere: Back, or a link.
    if (kept !== written.current) {
      written.current = kept;
      setText(kept);
    }
  }, [kept]);
  const write = (typed: string) => {
    setText(typed);
    written.current = typed;
    const { name: _name, page: _page, ...rest } = options;
    replace(path, typed ? { ...rest, name: typed } : rest);
  };
  return { text, setText: write };
}

function useSelection(all: Service[] | undefined) {
  const [asked, setAsked] = useState<Set<string>>(new Set());
  // Who left meanwhile is not chosen any more.
  const chosen = useMemo(() =>
    new Set((all ?? []).map(({ service }) => service).filter(service => asked.has(service))), [all, asked]);
  const choose = useCallback((service: string, isChosen: boolean) => setAsked(former => {
    const next = new Set(former);
    if (isChosen) next.add(service);
    else next.delete(service);
    return next;
  }), []);
  const chooseAll = (services: Service[], isChosen: boolean) => services.forEach(({ service }) => choose(service, isChosen));
  return { chosen, choose, chooseAll, forget: () => setAsked(new Set()) };
}

function filtered(all: Service[], text: string, level: string | undefined, state: string | undefined): Service[] {
  const folded = text.trim().toLocaleLowerCase();
  return all.filter(service =>
    (!folded || service.service.toLocaleLowerCase().includes(folded) ||
      service["display-name"].toLocaleLowerCase().includes(folded)) &&
    (!level || (level === "default" ? service["stored-level"].name : service["effective-level"].name) === level) &&
    (!state || (state === "attention" ? wantsAttention(service.state) : service.state === state)));
}

// The command gives them in the natural order of their names.
function inOrder(services: Service[], column: Column, isReversed: boolean): Service[] {
  const rank = Object.keys(kStates) as State[];
  const sorted = [...services];
  if (column === "level") sorted.sort((one, other) => one["effective-level"].value - other["effective-level"].value);
  if (column === "state") sorted.sort((one, other) => rank.indexOf(one.state) - rank.indexOf(other.state));
  return isReversed ? sorted.reverse() : sorted;
}

interface RowProps {
  service: Service;
  isChosen: boolean;
  choose: (service: string, isChosen: boolean) => void;
}

const Row = memo(function Row({ service, isChosen, choose }: RowProps) {
  const { service: name, "display-name": displayName, dated } = service;
  return (
    <Tr>
      <Td className="pf-v6-c-table__check">
        <Checkbox id={`select-${name}`} aria-label={cockpit.format(_("Select $0"), plain(name))} isChecked={isChosen}
          onChange={(_event, isSelected) => choose(name, isSelected)} />
      </Td>
      <Td dataLabel={_("Service")}>
        <a href={address(["service", name])}><Plain text={displayName || name} /></a>
        <div className="kelotls-subtle"><Plain text={name} /></div>
      </Td>
      <Td dataLabel={_("Level")}><LevelOf stored={service["stored-level"]} effective={service["effective-level"]} /></Td>
      <Td dataLabel={_("State")}>
        <StateLabel state={service.state} />
        <StateDetail service={service} />
      </Td>
      <Td dataLabel={_("Until")}>
        {dated && <>
          <Moment utc={dated.until} /> <Arrow /> <LevelLabel name={dated.then.name} />
          <div className="kelotls-subtle"><Plain text={dated.reason} /></div>
          {dated.fault && <div className="kelotls-fault"><Plain text={dated.fault} /></div>}
        </>}
      </Td>
      <Td isActionCell><RowActions name={name} /></Td>
    </Tr>
  );
});

// What the state is judged by, or why it is not better.
function StateDetail({ service: { fault, server, state, asked, "in-force-since": since } }: { service: Service }) {
  const why = fault ?? server?.text;
  return (
    <div className="kelotls-subtle">
      {why && <div className="kelotls-clamped"><Plain text={why} lines /></div>}
      {!why && server && <>{_("seen at")} <Plain text={server.address} /></>}
      {!why && !server && asked === "files" && state !== "needs-root" && _("by its files")}
      {!why && since && <div>{_("since")} <Moment utc={since} relative /></div>}
    </div>
  );
}

function Skeletons() {
  return <div className="kelotls-skeletons">
    {[0, 1, 2, 3, 4].map(row => <Skeleton key={row} height="2.5rem" screenreaderText={row ? undefined : _("Reading the services")} />)}
  </div>;
}

function NobodyJoined() {
  const { show, close } = useDialogs();
  return (
    <EmptyState headingLevel="h2" icon={CubesIcon} titleText={_("No service has joined")}>
      <EmptyStateBody>
        {_("A service brings a registration, which says where its template and its reloader are. The package kelotls-services has those of well-known servers.")}
      </EmptyStateBody>
      <EmptyStateFooter>
        <EmptyStateActions>
          <GuardedButton onClick={() => show(<JoinDialog onClose={close} />)}>{_("Join a service")}</GuardedButton>
        </EmptyStateActions>
      </EmptyStateFooter>
    </EmptyState>
  );
}

function NobodyFound({ onClear }: { onClear: () => void }) {
  return (
    <EmptyState headingLevel="h2" icon={SearchIcon} titleText={_("No service matches")}>
      <EmptyStateFooter>
        <EmptyStateActions><Button variant="link" onClick={onClear}>{_("Clear all filters")}</Button></EmptyStateActions>
      </EmptyStateFooter>
    </EmptyState>
  );
}
