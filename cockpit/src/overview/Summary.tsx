// Four cards: the default level, how many services are in which state, what is wrong, and the last change.

import { Card, CardBody, CardFooter, CardHeader, CardTitle, Grid, GridItem, Skeleton } from "@patternfly/react-core";
import cockpit from "cockpit";
import { useId } from "react";
import type { ReactNode } from "react";
import LevelDialog from "../dialogs/LevelDialog";
import type { History, List } from "../documents";
import { useLevels } from "../store";
import { Boundary } from "../ui/Boundary";
import { useDialogs } from "../ui/dialogs";
import { GuardedButton } from "../ui/guarded";
import { LevelLabel, Signed } from "../ui/Labels";
import { address } from "../ui/location";
import { Moment } from "../ui/Moment";
import { Plain } from "../ui/Plain";
import { kDefaultLevel, kResults, kStates, levelName, wantsAttention } from "../ui/states";
import type { State } from "../ui/states";
import { severities } from "./severity";

const _ = cockpit.gettext;

export function Summary() {
  const { list, status, history, asking } = useLevels();
  return (
    <Grid hasGutter sm={6} lg={3}>
      <GridItem><Boundary><DefaultLevel list={list.document} /></Boundary></GridItem>
      <GridItem><Boundary><OnTheWire list={list.document} asking={asking} /></Boundary></GridItem>
      <GridItem><Boundary><FoundWrong list={list.document} /></Boundary></GridItem>
      <GridItem>
        <Boundary>
          <LastChange history={history.document} fault={history.fault?.error} isKnown={status.document?.["history-known"] ?? true} />
        </Boundary>
      </GridItem>
    </Grid>
  );
}

interface PartProps {
  title: string;
  children: ReactNode;
  action?: ReactNode;
}

function Part({ title, children, action }: PartProps) {
  const id = useId();
  return (
    <Card component="section" isCompact isFullHeight aria-labelledby={id}>
      <CardHeader><CardTitle component="h2" id={id}>{title}</CardTitle></CardHeader>
      <CardBody>{children}</CardBody>
      {action && <CardFooter>{action}</CardFooter>}
    </Card>
  );
}

const Waiting = () => <Skeleton screenreaderText={_("Reading")} width="70%" />;

function DefaultLevel({ list }: { list: List.Document | null }) {
  const { show, close } = useDialogs();
  const followers = list?.services.filter(service => service["stored-level"].name === "default").length ?? 0;
  return (
    <Part title={_("Default level")} action={list &&
      <GuardedButton variant="link" isInline onClick={() => show(<LevelDialog services="default" onClose={close} />)}>
        {_("Change default level")}
      </GuardedButton>}>
      {list ? <>
        <div className="kelotls-figure"><LevelLabel name={list["default-level"].name} /></div>
        <a href={address([], { level: "default" })}>
          {cockpit.format(cockpit.ngettext("$0 of $1 service follows it", "$0 of $1 services follow it", list.services.length),
            followers, list.services.length)}
        </a>
      </> : <Waiting />}
    </Part>
  );
}

function OnTheWire({ list, asking }: { list: List.Document | null; asking: boolean }) {
  const counts = new Map<State, number>();
  for (const { state } of list?.services ?? []) counts.set(state, (counts.get(state) ?? 0) + 1);
  const states = (Object.keys(kStates) as State[]).filter(state => counts.has(state));
  const attention = states.filter(wantsAttention).reduce((sum, state) => sum + counts.get(state)!, 0);
  const seen = list?.services.filter(({ asked }) => asked === "server").length ?? 0;
  return (
    <Part title={_("On the wire")} action={attention > 0 &&
      <a href={address([], { state: "attention" })}>
        {cockpit.format(cockpit.ngettext("$0 wants attention", "$0 want attention", attention), attention)}
      </a>}>
      {!list ? <Waiting /> : states.length === 0 ? _("No service has joined") :
        <ul className="kelotls-counts">
          {states.map(state => <li key={state}>
            <Signed mood={kStates[state].mood}>
              <a href={address([], { state })}><b>{counts.get(state)}</b> {kStates[state].name}</a>
            </Signed>
          </li>)}
        </ul>}
      {states.length > 0 && <div className="kelotls-subtle kelotls-below">
        {asking ? _("The running servers are being asked") : cockpit.format(_("$0 seen on the wire, $1 judged by their files"), seen, list!.services.length - seen)}
      </div>}
    </Part>
  );
}

function FoundWrong({ list }: { list: List.Document | null }) {
  const findings = list?.findings;
  return (
    <Part title={_("Findings")}>
      {!findings ? <Waiting /> : findings.length === 0 ? <Signed mood="good">{_("Nothing is wrong.")}</Signed> :
        <ul className="kelotls-counts">
          {severities.map(({ severity, mood, counted }) => {
            const count = findings.filter(finding => finding.severity === severity).length;
            return count > 0 && <li key={severity}>
              <Signed mood={mood}><a href={address(["findings"])}>{counted(count)}</a></Signed>
            </li>;
          })}
        </ul>}
    </Part>
  );
}

interface LastChangeProps {
  history: History.Document | null;
  fault: string | undefined;
  // Whether this user may read it.
  isKnown: boolean;
}

function LastChange({ history, fault, isKnown }: LastChangeProps) {
  const last = history?.changes.at(-1);
  return (
    <Part title={_("Last change")} action={last && <a href={address(["history"])}>{_("History")}</a>}>
      {!history ? (fault ? <Plain text={fault} /> : <Waiting />) : !isKnown ? <Signed mood="unknown">{_("Not known: needs root")}</Signed> :
        !last ? _("Nothing was changed yet.") : <>
        <Signed mood={kResults[last.result].mood}>{kResults[last.result].name}</Signed>
        <div><LastChangeText change={last} /></div>
        <div className="kelotls-subtle"><Moment utc={last.time} relative /></div>
      </>}
    </Part>
  );
}

function LastChangeText({ change }: { change: History.Document["changes"][number] }) {
  const [first] = change.changes;
  return (
    <>
      <Plain text={change.who.sudo ?? change.who.login ?? change.who.user} />: {change.command}
      {first && first.service !== kDefaultLevel && <> <Plain text={first.service} /></>}
      {change.changes.length === 1 && first.to && <>, {levelName(first.to)}</>}
      {change.changes.length > 1 &&
        ` ${cockpit.format(cockpit.ngettext("and $0 other", "and $0 others", change.changes.length - 1), change.changes.length - 1)}`}
    </>
  );
}
