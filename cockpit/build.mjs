// Builds the page into dist/: one script, one style sheet, the fonts, and the translations as Cockpit loads them.
// With --watch, again at each change of the sources.
import { context, build } from "esbuild";
import { copyFileSync, mkdirSync, readFileSync, rmSync } from "node:fs";
import { fileURLToPath } from "node:url";
import { writeTranslations } from "./texts.mjs";

process.chdir(fileURLToPath(new URL(".", import.meta.url)));

// Cockpit brings its own module, as a global of the page.
const cockpitOfTheHost = {
  name: "cockpit",
  setup(build) {
    build.onResolve({ filter: /^cockpit$/ }, () => ({ path: "cockpit", namespace: "host" }));
    build.onLoad({ filter: /.*/, namespace: "host" }, () => ({ contents: "module.exports = window.cockpit" }));
  },
};

// PatternFly's entry point brings the styles of all its components along, five times as many as the page uses. It
// comes with a list of where each of them is by itself.
const places = JSON.parse(readFileSync("node_modules/@patternfly/react-core/dist/dynamic-modules.json", "utf8"));
const componentsAlone = {
  name: "components-alone",
  setup(build) {
    build.onLoad({ filter: /\/src\/.*\.tsx$/ }, ({ path }) => ({
      loader: "tsx",
      contents: readFileSync(path, "utf8").replace(
        /^import \{([^}]*)\} from "@patternfly\/react-core";$/gm,
        (_import, names) => names.split(",").map(name => name.trim()).filter(name => name).map(name =>
          `import { ${name} } from "@patternfly/react-core/${places[name].replace("/dynamic/", "/esm/")}/index.js";`).join(" ")),
    }));
  },
};

const options = {
  entryPoints: ["src/index.tsx"],
  outdir: "dist",
  bundle: true,
  minify: true,
  format: "iife",
  target: "es2020",
  jsx: "automatic",
  define: { "process.env.NODE_ENV": '"production"' },
  loader: { ".woff2": "file", ".svg": "file" },
  assetNames: "fonts/[name]",
  legalComments: "linked",
  metafile: true,
  plugins: [cockpitOfTheHost, componentsAlone],
};

rmSync("dist", { recursive: true, force: true });
mkdirSync("dist");
copyFileSync("manifest.json", "dist/manifest.json");
copyFileSync("src/index.html", "dist/index.html");
writeTranslations("dist");
if (process.argv.includes("--watch")) {
  await (await context(options)).watch();
} else {
  await build(options);
}
