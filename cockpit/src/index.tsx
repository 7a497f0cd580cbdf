import "@patternfly/patternfly/patternfly-base.css";
import { createRoot } from "react-dom/client";
import { App } from "./App";
import { start } from "./store";
import { followLanguage, followTheme } from "./ui/surroundings";
// After the styles of the components, to have the last word.
import "./page.css";

start();
followTheme();
followLanguage();
createRoot(document.getElementById("app")!).render(<App />);
