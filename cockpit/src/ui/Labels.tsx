// Levels and states as they are shown everywhere: never by their colour alone.

import { Icon, Label } from "@patternfly/react-core";
import CheckCircleIcon from "@patternfly/react-icons/dist/esm/icons/check-circle-icon";
import ExclamationCircleIcon from "@patternfly/react-icons/dist/esm/icons/exclamation-circle-icon";
import ExclamationTriangleIcon from "@patternfly/react-icons/dist/esm/icons/exclamation-triangle-icon";
import InfoCircleIcon from "@patternfly/react-icons/dist/esm/icons/info-circle-icon";
import PendingIcon from "@patternfly/react-icons/dist/esm/icons/pending-icon";
import QuestionCircleIcon from "@patternfly/react-icons/dist/esm/icons/question-circle-icon";
import type { ReactNode } from "react";
import { kLevels, kStates, levelName } from "./states";
import type { LevelName, Mood, State } from "./states";

const kColors: { [name: string]: "green" | "blue" | "orange" | "red" | "grey" } = {
  modern: "green",
  intermediate: "blue",
  old: "orange",
  unusable: "red",
};

export function LevelLabel({ name }: { name: string }) {
  return <Label isCompact color={kColors[name] ?? "grey"}>{levelName(name)}</Label>;
}

interface LevelOfProps {
  stored: { name: LevelName };
  effective: { name: LevelName };
}

// "default → intermediate" for a service that follows the default level.
export function LevelOf({ stored, effective }: LevelOfProps) {
  if (stored.name === effective.name) return <LevelLabel name={stored.name} />;
  return <span className="kelotls-level">{kLevels[stored.name]} <Arrow /> <LevelLabel name={effective.name} /></span>;
}

// Points the way that is read.
export function Arrow() {
  return <span className="kelotls-arrow">{document.documentElement.dir === "rtl" ? "←" : "→"}</span>;
}

const kMoods: { [mood in Mood]: { icon: ReactNode; status?: "success" | "info" | "warning" | "danger" } } = {
  good: { icon: <CheckCircleIcon />, status: "success" },
  busy: { icon: <PendingIcon />, status: "info" },
  note: { icon: <InfoCircleIcon />, status: "info" },
  warning: { icon: <ExclamationTriangleIcon />, status: "warning" },
  bad: { icon: <ExclamationCircleIcon />, status: "danger" },
  unknown: { icon: <QuestionCircleIcon /> },
};

// A text with the sign of how good that is.
export function Signed({ mood, children }: { mood: Mood; children: ReactNode }) {
  const { icon, status } = kMoods[mood];
  return (
    <span className="kelotls-signed">
      <Icon isInline status={status} aria-hidden>{icon}</Icon> <span>{children}</span>
    </span>
  );
}

export function StateLabel({ state }: { state: State }) {
  return <Signed mood={kStates[state].mood}>{kStates[state].name}</Signed>;
}
