// What the command finds wrong, the worst first, and what to do about each.

import { Button, EmptyState, Skeleton } from "@patternfly/react-core";
import CheckCircleIcon from "@patternfly/react-icons/dist/esm/icons/check-circle-icon";
import cockpit from "cockpit";
import DhDialog from "../dialogs/DhDialog";
import type { List } from "../documents";
import { refresh, useLevels } from "../store";
import { useDialogs } from "../ui/dialogs";
import { GuardedButton } from "../ui/guarded";
import { Signed } from "../ui/Labels";
import { usePage } from "../ui/paging";
import { Plain } from "../ui/Plain";
import { severities } from "./severity";

const _ = cockpit.gettext;

type Finding = NonNullable<List.Document["findings"]>[number];

export function Findings() {
  const { list, reading } = useLevels();
  const found = severities.flatMap(({ severity }) =>
    (list.document?.findings ?? []).filter(finding => finding.severity === severity));
  const { shown, pages } = usePage(found);
  if (!list.document?.findings) return list.fault ? null : <Skeleton screenreaderText={_("Looking for what is wrong")} />;
  return (
    <>
      <div className="kelotls-bar">
        <Button variant="secondary" isLoading={reading} onClick={() => void refresh()}>{_("Check again")}</Button>
        {found.length > 0 && pages("top", _("findings"))}
      </div>
      {found.length === 0 ?
        <EmptyState headingLevel="h2" status="success" icon={CheckCircleIcon} titleText={_("Nothing is wrong.")} /> :
        // A list without its marks is none for some screen readers, unless it says that it is.
        <ul role="list" aria-label={_("Findings")} className="kelotls-findings">
          {shown.map((finding, at) => <Item key={`${at} ${finding.path}`} finding={finding} />)}
        </ul>}
      {pages("bottom", _("findings"))}
    </>
  );
}

function Item({ finding: { kind, severity, path, text, action } }: { finding: Finding }) {
  const { show, close } = useDialogs();
  const { name, mood } = severities.find(one => one.severity === severity)!;
  return (
    <li>
      <Signed mood={mood}><b>{name}</b></Signed>
      <div>
        <p><Plain text={text} lines /></p>
        {path && <p className="kelotls-path"><Plain text={path} /></p>}
        {action && <p><span className="kelotls-subtle">{_("What to do:")}</span> <Plain text={action} lines /></p>}
        {kind === "dh-parameters" &&
          <GuardedButton variant="link" isInline onClick={() => show(<DhDialog onClose={close} />)}>
            {_("Make DH parameters")}
          </GuardedButton>}
      </div>
    </li>
  );
}
