// Builds the page into dist/: one script, one style sheet, the fonts, the translations as Cockpit loads them, and the
// licences of what is in there of others. Which modules those are goes to bundled.json, for the bill of materials.
// With --watch, again at each change of the sources.
import { context, build } from "esbuild";
import { copyFileSync, existsSync, mkdirSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { fileURLToPath } from "node:url";
import { writeTranslations } from "./texts.mjs";

const directory = fileURLToPath(new URL(".", import.meta.url));
process.chdir(directory);

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

// Nothing here uses PatternFly's fonts of icons and its pictures.
const withoutPictures = {
  name: "without-pictures",
  setup(build) {
    build.onLoad({ filter: /\/patternfly-base\.css$/ }, ({ path }) => ({
      loader: "css",
      contents: readFileSync(path, "utf8")
        .replace(/@font-face \{[^}]*(?:fa-solid|pficon)[^}]*\}/g, "")
        .replace(/url\("\.\/assets\/images\/[^"]*"\)/g, "none"),
    }));
  },
};

const options = {
  absWorkingDir: directory,
  entryPoints: ["src/index.tsx"],
  outdir: "dist",
  bundle: true,
  minify: true,
  format: "iife",
  target: "es2020",
  jsx: "automatic",
  define: { "process.env.NODE_ENV": '"production"' },
  loader: { ".woff2": "file" },
  assetNames: "fonts/[name]",
  legalComments: "none",  // LICENSES.txt has all
  metafile: true,
  plugins: [cockpitOfTheHost, componentsAlone, withoutPictures],
};

rmSync("dist", { recursive: true, force: true });
mkdirSync("dist");
copyFileSync("manifest.json", "dist/manifest.json");
copyFileSync("src/index.html", "dist/index.html");
writeTranslations("dist");
if (process.argv.includes("--watch")) {
  await (await context(options)).watch();
} else {
  writeLicenses(modulesIn((await build(options)).metafile));
}

function modulesIn({ outputs }) {
  const inputs = Object.values(outputs).flatMap(output =>
    Object.entries(output.inputs).filter(([, { bytesInOutput }]) => bytesInOutput > 0).map(([path]) => path));
  const names = inputs.map(path => /.*node_modules\/((?:@[^/]*\/)?[^/]*)/.exec(path)?.[1]).filter(name => name);
  return [...new Set(names)].sort().map(name => {
    const { version, license } = JSON.parse(readFileSync(`node_modules/${name}/package.json`, "utf8"));
    return { name, version, license };
  });
}

function writeLicenses(modules) {
  writeFileSync("bundled.json", JSON.stringify(modules, null, 1) + "\n");
  const texts = modules.map(({ name, version, license }) => {
    const file = ["LICENSE", "LICENSE.txt", "LICENSE.md"].map(file => `node_modules/${name}/${file}`).find(existsSync);
    return `${name} ${version}, ${license}\n\n${file ? readFileSync(file, "utf8").trim() : "Brings no text of its licence."}\n`;
  });
  writeFileSync("dist/LICENSES.txt", texts.join("\n----\n\n"));
}
