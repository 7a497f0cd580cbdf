// A filter that is one of some values, or none.

import { MenuToggle, Select, SelectList, SelectOption } from "@patternfly/react-core";
import cockpit from "cockpit";
import { useState } from "react";

const _ = cockpit.gettext;

interface ChoiceProps {
  name: string;
  // Values and their names; none is chosen by "".
  choices: [string, string][];
  chosen: string;
  onChoose: (value: string) => void;
}

export function Choice({ name, choices, chosen, onChoose }: ChoiceProps) {
  const [isOpen, setOpen] = useState(false);
  const chosenName = choices.find(([value]) => value === chosen)?.[1];
  return (
    <Select isOpen={isOpen} onOpenChange={setOpen} selected={chosen} aria-label={name}
      onSelect={(_event, value) => {
        setOpen(false);
        onChoose(String(value));
      }}
      toggle={reference =>
        <MenuToggle ref={reference} onClick={() => setOpen(!isOpen)} isExpanded={isOpen}>
          {chosenName ? `${name}: ${chosenName}` : name}
        </MenuToggle>}>
      <SelectList>
        <SelectOption value="">{_("Any")}</SelectOption>
        {choices.map(([value, text]) => <SelectOption key={value} value={value}>{text}</SelectOption>)}
      </SelectList>
    </Select>
  );
}
