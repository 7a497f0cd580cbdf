// The dialog that is open, if any, and the messages about what was done.

import { Alert, AlertActionCloseButton, AlertGroup } from "@patternfly/react-core";
import type { AlertProps } from "@patternfly/react-core";
import { Fragment, createContext, useCallback, useContext, useEffect, useMemo, useRef, useState } from "react";
import type { ReactElement, ReactNode } from "react";
import { kSeverities } from "./severities";

interface Dialogs {
  // One at a time; its component closes itself by close().
  show: (dialog: ReactElement) => void;
  close: () => void;
}

type Say = (title: string, variant?: AlertProps["variant"], more?: ReactNode) => void;

const DialogContext = createContext<Dialogs>({ show: () => {}, close: () => {} });
const ToastContext = createContext<Say>(() => {});

export const useDialogs = () => useContext(DialogContext);
export const useToasts = () => useContext(ToastContext);

interface Toast {
  key: number;
  title: string;
  variant: AlertProps["variant"];
  more: ReactNode;
}

export function DialogsAndToasts({ children }: { children: ReactNode }) {
  const [open, setOpen] = useState<{ key: number; dialog: ReactElement } | null>(null);
  const [toasts, setToasts] = useState<Toast[]>([]);
  const opener = useRef<HTMLElement | null>(null);
  const dialogs = useMemo(() => ({
    show: (dialog: ReactElement) => {
      // What is beneath a dialog is hidden from screen readers, which what has the focus cannot be.
      if (document.activeElement instanceof HTMLElement && document.activeElement !== document.body) {
        opener.current = document.activeElement;
        opener.current.blur();
      }
      // A key of its own: nothing of a former dialog is left in a new one.
      setOpen(former => ({ key: (former?.key ?? 0) + 1, dialog }));
    },
    close: () => setOpen(null),
  }), []);
  useEffect(() => {
    if (open || !opener.current) return;
    opener.current.focus();
    opener.current = null;
  }, [open]);
  const say = useCallback<Say>((title, variant = "success", more = null) => {
    setToasts(former => [...former, { key: (former.at(-1)?.key ?? 0) + 1, title, variant, more }]);
  }, []);
  const dismiss = (key: number) => setToasts(former => former.filter(toast => toast.key !== key));

  return (
    <DialogContext.Provider value={dialogs}>
      <ToastContext.Provider value={say}>
        {children}
        {open && <Fragment key={open.key}>{open.dialog}</Fragment>}
        <AlertGroup isToast isLiveRegion>
          {toasts.map(({ key, title, variant, more }) => (
            <Alert key={key} variant={variant} variantLabel={kSeverities[variant ?? "custom"]} title={title} timeout={variant === "success" ? 12000 : false}
              onTimeout={() => dismiss(key)} actionClose={<AlertActionCloseButton onClose={() => dismiss(key)} />}>
              {more}
            </Alert>
          ))}
        </AlertGroup>
      </ToastContext.Provider>
    </DialogContext.Provider>
  );
}
