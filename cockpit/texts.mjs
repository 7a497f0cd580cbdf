// The page's texts and their translations.
//
//   node texts.mjs check     every text is translated, with the same placeholders, and nothing else is
//   node texts.mjs update    brings po/*.po in line with the sources; what is new is empty
//
// The sources are read by TypeScript itself: xgettext of Debian 12 does not know its syntax.
import { po } from "gettext-parser";
import { readdirSync, readFileSync, writeFileSync } from "node:fs";
import { argv } from "node:process";
import { fileURLToPath } from "node:url";

const directory = new URL("po/", import.meta.url);
const languages = () => readdirSync(directory).filter(name => name.endsWith(".po")).map(name => name.slice(0, -3)).sort();
const read = language => po.parse(readFileSync(new URL(`${language}.po`, directory)));

// Texts of others: of the menu, from the manifest.
const manifestTexts = () => {
  const manifest = JSON.parse(readFileSync(new URL("manifest.json", import.meta.url), "utf8"));
  return [manifest.tools.index.label, ...manifest.tools.index.keywords.flatMap(({ matches }) => matches)];
};

// For Cockpit: po.LANGUAGE.js for the page, po.manifest.LANGUAGE.js for the menu.
export function writeTranslations(target) {
  for (const language of languages()) {
    const catalogue = read(language);
    const plural = /plural=(.*?);?$/.exec(catalogue.headers["Plural-Forms"].trim())[1];
    const entries = Object.entries(catalogue.translations).flatMap(([context, texts]) =>
      Object.values(texts).filter(({ msgid, msgstr }) => msgid && msgstr[0])
        .map(({ msgid, msgstr }) => [context ? `${context}\u0004${msgid}` : msgid, [null, ...msgstr]]));
    const header = `"":{"plural-forms":n=>${plural},"language":"${language}","language-direction":"ltr"}`;
    const script = chosen => `cockpit.locale({${[header, ...chosen.map(
      ([text, translated]) => `${JSON.stringify(text)}:${JSON.stringify(translated)}`)].join(",")}});\n`;
    const menu = new Set(manifestTexts());
    writeFileSync(`${target}/po.${language}.js`, script(entries));
    writeFileSync(`${target}/po.manifest.${language}.js`, script(entries.filter(([text]) => menu.has(text))));
  }
}

async function textsOfSources() {
  const { default: ts } = await import("typescript");
  const texts = new Map();
  const add = (msgid, msgid_plural, place, msgctxt) => {
    const key = `${msgctxt ?? ""}\u0004${msgid}`;
    const known = texts.get(key) ?? { msgid, msgid_plural, msgctxt, places: [] };
    known.places.push(place);
    texts.set(key, known);
  };
  const sources = readdirSync(new URL("src/", import.meta.url), { recursive: true }).map(String)
    .filter(name => /\.tsx?$/.test(name) && !name.endsWith(".d.ts")).sort();
  for (const name of sources) {
    const source = ts.createSourceFile(name, readFileSync(new URL(`src/${name}`, import.meta.url), "utf8"),
      ts.ScriptTarget.Latest, true, name.endsWith("x") ? ts.ScriptKind.TSX : ts.ScriptKind.TS);
    const visit = node => {
      if (ts.isCallExpression(node)) {
        const called = node.expression.getText(source).replace(/^cockpit\./, "");
        const given = node.arguments.filter(argument => ts.isStringLiteralLike(argument)).map(argument => argument.text);
        if ((called === "_" || called === "gettext") && node.arguments.length === given.length) {
          if (given.length === 2) add(given[1], undefined, `src/${name}`, given[0]);
          else add(given[0], undefined, `src/${name}`);
        } else if (called === "_" || called === "gettext") {
          throw new Error(`src/${name}: a text that is not written out: ${node.getText(source)}`);
        } else if (called === "ngettext") {
          add(given[0], given[1], `src/${name}`);
        }
      }
      ts.forEachChild(node, visit);
    };
    visit(source);
  }
  for (const text of manifestTexts()) add(text, undefined, "manifest.json");
  return texts;
}

const placeholders = text => [...text.matchAll(/\$\d/g)].map(String).sort().filter((one, at, all) => one !== all[at - 1]).join(" ");

async function check() {
  const texts = await textsOfSources();
  const faults = [];
  for (const language of languages()) {
    const file = `po/${language}.po`;
    const catalogue = read(language);
    const translated = new Set();
    for (const [context, entries] of Object.entries(catalogue.translations)) {
      for (const { msgid, msgid_plural, msgstr, comments } of Object.values(entries)) {
        if (!msgid) continue;
        translated.add(`${context}\u0004${msgid}`);
        const text = texts.get(`${context}\u0004${msgid}`);
        if (!text) faults.push(`${file}: no text of the page: ${msgid}`);
        else if (text.msgid_plural !== msgid_plural) faults.push(`${file}: another plural: ${msgid}`);
        if (msgstr.some(one => !one) || comments?.flag?.includes("fuzzy")) faults.push(`${file}: not translated: ${msgid}`);
        // A singular may leave its number out.
        if (placeholders(msgstr.at(-1)) !== placeholders(msgid_plural ?? msgid)) {
          faults.push(`${file}: other placeholders: ${msgid}`);
        }
      }
    }
    for (const [key, { msgid }] of texts) {
      if (!translated.has(key)) faults.push(`${file}: missing: ${msgid}`);
    }
  }
  for (const fault of faults) console.error(fault);
  return faults.length === 0;
}

async function update() {
  const texts = [...(await textsOfSources()).values()];
  for (const language of languages()) {
    const catalogue = read(language);
    const former = catalogue.translations;
    const translations = { "": { "": former[""][""] } };
    for (const { msgid, msgid_plural, msgctxt, places } of texts) {
      const context = msgctxt ?? "";
      const had = former[context]?.[msgid];
      (translations[context] ??= {})[msgid] = {
        msgid, msgid_plural, msgctxt,
        msgstr: had?.msgstr.length === (msgid_plural ? 2 : 1) ? had.msgstr : Array(msgid_plural ? 2 : 1).fill(""),
        comments: { reference: [...new Set(places)].sort().join("\n") },
      };
    }
    const order = (one, other) => compare(one.comments?.reference ?? "", other.comments?.reference ?? "") ||
      compare(one.msgid, other.msgid);
    catalogue.translations = translations;
    writeFileSync(new URL(`${language}.po`, directory), po.compile(catalogue, { foldLength: 118, sort: order }) + "\n");
  }
}

function compare(one, other) {
  return one < other ? -1 : one > other ? 1 : 0;
}

if (argv[1] === fileURLToPath(import.meta.url)) {
  if (argv[2] === "check") process.exitCode = await check() ? 0 : 1;
  else if (argv[2] === "update") await update();
  else {
    console.error("usage: texts.mjs check | update");
    process.exitCode = 2;
  }
}
