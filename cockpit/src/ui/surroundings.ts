// What Cockpit's window decides for the pages in it: light or dark, the language and its direction.

import cockpit from "cockpit";

// Cockpit keeps the choice where every page of the same origin sees it, and tells pages of the same window of a
// change by an event; "auto" follows the system.
export function followTheme() {
  const system = window.matchMedia("(prefers-color-scheme: dark)");
  const follow = (chosen: string) => {
    const dark = chosen === "dark" || (chosen !== "light" && system.matches);
    document.documentElement.classList.toggle("pf-v6-theme-dark", dark);
  };
  const followKept = () => follow(localStorage.getItem("shell:style") ?? "auto");
  system.addEventListener("change", followKept);
  window.addEventListener("storage", event => event.key === "shell:style" && followKept());
  window.addEventListener("cockpit-style", event => follow((event as CustomEvent<{ style: string }>).detail.style));
  followKept();
}

export function followLanguage() {
  document.documentElement.lang = language();
  document.documentElement.dir = cockpit.language_direction;
  document.title = cockpit.gettext("TLS levels");
}

// As the browser names languages: pt_BR is pt-BR there.
export function language(): string {
  return (cockpit.language || "en").replace("_", "-");
}
