import cockpit from "cockpit";
import type { Mood } from "../ui/states";

const _ = cockpit.gettext;

// In the order in which they are shown.
export const severities: { severity: string; name: string; mood: Mood; counted: (count: number) => string }[] = [
  {
    severity: "error", name: _("Error"), mood: "bad",
    counted: count => cockpit.format(cockpit.ngettext("$0 error", "$0 errors", count), count),
  },
  {
    severity: "warning", name: _("Warning"), mood: "warning",
    counted: count => cockpit.format(cockpit.ngettext("$0 warning", "$0 warnings", count), count),
  },
  {
    severity: "note", name: _("Note"), mood: "note",
    counted: count => cockpit.format(cockpit.ngettext("$0 note", "$0 notes", count), count),
  },
];
