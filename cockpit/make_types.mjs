// Makes the types of what the command prints from the schemas that are installed with it, so that neither can
// say something else than the other.
import { compile } from "json-schema-to-typescript";
import { readdirSync, readFileSync, writeFileSync } from "node:fs";

const schemas = new URL("../schemas/output/", import.meta.url);
const commands = readdirSync(schemas).map(name => name.replace(/\.schema\.json$/, "")).sort();
const parts = ["// Made by make_types.mjs; not to be edited.\n"];
for (const command of commands) {
  const schema = JSON.parse(readFileSync(new URL(`${command}.schema.json`, schemas), "utf8"));
  delete schema.title;
  const types = await compile(schema, "Document", { bannerComment: "", format: false });
  // Each in a namespace of its own: the same name means a little more or less in each document.
  parts.push(`export namespace ${namespace(command)} {\n${types}}\n`);
}
parts.push("export interface Documents {\n" +
  commands.map(command => `  "${command.replace("clients-", "clients ")}": ${namespace(command)}.Document;\n`).join("") +
  "}\n");
writeFileSync(new URL("src/documents.d.ts", import.meta.url), parts.join("\n"));

function namespace(command) {
  return command.replace(/(^|-)(.)/g, (_match, _dash, letter) => letter.toUpperCase());
}
