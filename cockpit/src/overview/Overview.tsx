// All services at a glance, what is wrong, and what was changed.

import {
  Content, Flex, FlexItem, PageSection, Tab, TabTitleText, Tabs, Title,
} from "@patternfly/react-core";
import cockpit from "cockpit";
import type { ReactNode } from "react";
import { useLevels } from "../store";
import { Boundary } from "../ui/Boundary";
import { FaultAlert } from "../ui/FaultAlert";
import { address, go } from "../ui/location";
import { clock } from "../ui/time";
import { Actions } from "./Actions";
import { Findings } from "./Findings";
import { HistoryTable } from "./HistoryTable";
import { Services } from "./Services";
import { Summary } from "./Summary";
import { Unusable } from "./Unusable";

const _ = cockpit.gettext;

const kTabs = ["services", "findings", "history"] as const;
export type TabName = typeof kTabs[number];

const placeOf = (tab: TabName) => tab === "services" ? [] : [tab];

export function Overview({ tab }: { tab: string }) {
  const { list, status, history, reading } = useLevels();
  const shown = kTabs.find(name => name === tab) ?? "services";
  const unusable = list.fault?.kind === "command" && list.fault.code === 4;
  return (
    <>
      <PageSection className="kelotls-head">
        <Flex justifyContent={{ default: "justifyContentSpaceBetween" }} alignItems={{ default: "alignItemsFlexStart" }}>
          <FlexItem>
            <Title headingLevel="h1" size="2xl">{_("TLS levels")}</Title>
            <Content component="p" className="kelotls-subtle">
              {_("One level for each service: which versions and cipher suites its clients may speak.")}
            </Content>
          </FlexItem>
          <FlexItem><Actions /></FlexItem>
        </Flex>
      </PageSection>
      {list.fault && !unusable &&
        <PageSection>
          <FaultAlert fault={list.fault}>
            {list.asOf && <p>{cockpit.format(_("What is shown is as of $0."), clock(list.asOf))}</p>}
          </FaultAlert>
        </PageSection>}
      {unusable ? <PageSection isFilled><Unusable fault={list.fault!} /></PageSection> : <>
        <PageSection aria-busy={reading && !list.document}><Summary /></PageSection>
        <PageSection isFilled className="kelotls-tabs">
          <Tabs activeKey={shown} onSelect={(_event, key) => go(placeOf(key as TabName))} aria-label={_("What is shown")}
            component="nav" mountOnEnter unmountOnExit>
            {tabOf("services", _("Services"), list.document?.services.length, <Services />)}
            {tabOf("findings", _("Findings"), list.document?.findings?.length, <Findings />)}
            {tabOf("history", _("History"), status.document?.["history-known"] ? history.document?.changes.length : undefined, <HistoryTable />)}
          </Tabs>
        </PageSection>
      </>}
    </>
  );
}

function tabOf(name: TabName, title: string, count: number | undefined, content: ReactNode) {
  return (
    <Tab eventKey={name} href={address(placeOf(name))}
      title={<TabTitleText>{title}{count !== undefined && <span className="kelotls-subtle">{`\u00a0${count}`}</span>}</TabTitleText>}>
      <Boundary>{content}</Boundary>
    </Tab>
  );
}
