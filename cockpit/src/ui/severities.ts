import cockpit from "cockpit";

const _ = cockpit.gettext;

// What stands before the title of an alert for who does not see its colour.
export const kSeverities = {
  danger: _("Error:"),
  warning: _("Warning:"),
  info: _("Note:"),
  success: _("Success:"),
  custom: _("Note:"),
};
