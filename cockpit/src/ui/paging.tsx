// Long lists in pages; which page, and how long it is, is in the address.

import { Pagination } from "@patternfly/react-core";
import type { PaginationProps } from "@patternfly/react-core";
import cockpit from "cockpit";
import { replace, usePlace } from "./location";

const _ = cockpit.gettext;

const kSizes = [20, 50, 100];

export function usePage<Item>(items: Item[]) {
  const { path, options } = usePlace();
  const asked = Number(options["per-page"]);
  const size = kSizes.includes(asked) ? asked : kSizes[0];
  const last = Math.max(1, Math.ceil(items.length / size));
  const page = Math.min(last, Math.max(1, Number(options.page) || 1));
  const turn = (changed: { [name: string]: string }) => replace(path, { ...options, ...changed });
  const pages = (variant: PaginationProps["variant"], name: string) => (items.length > kSizes[0] || variant === "top") && (
    <Pagination variant={variant} isCompact={variant === "top"} itemCount={items.length} page={page} perPage={size}
      perPageOptions={kSizes.map(count => ({ title: String(count), value: count }))}
      onSetPage={(_event, chosen) => turn({ page: String(chosen) })}
      onPerPageSelect={(_event, count) => turn({ "per-page": String(count), page: "1" })}
      widgetId={`${name}-${variant}`}
      titles={{
        paginationAriaLabel: variant === "top" ? cockpit.format(_("Pages of $0"), name) : cockpit.format(_("Pages of $0, below"), name),
        items: "", page: "", ofWord: _("of"),
        perPageSuffix: _("per page"), itemsPerPage: _("Items per page"),
        // Begins with what is seen, by which people who speak to their machine call it.
        optionsToggleAriaLabel: cockpit.format(_("$0 - $1 of $2, items per page"),
          items.length === 0 ? 0 : (page - 1) * size + 1, Math.min(page * size, items.length), items.length),
        toFirstPageAriaLabel: _("Go to first page"), toPreviousPageAriaLabel: _("Go to previous page"),
        toNextPageAriaLabel: _("Go to next page"), toLastPageAriaLabel: _("Go to last page"),
        currPageAriaLabel: _("Current page"),
      }} />);
  return { shown: items.slice((page - 1) * size, page * size), pages };
}
