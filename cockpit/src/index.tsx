import "@patternfly/patternfly/patternfly-base.css";
import "./page.css";
import { createRoot } from "react-dom/client";
import { App } from "./App";
import { followLanguage, followTheme } from "./ui/surroundings";

followTheme();
followLanguage();
createRoot(document.getElementById("app")!).render(<App />);
