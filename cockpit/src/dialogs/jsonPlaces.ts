// Where in a JSON text a fault is that the command names by its path, as $.services[0].display-name. What is valid is
// the command's to say: of a text that is no JSON the places are those up to where it ends being one.

export interface Place {
  line: number;
  from: number;
  to: number;
}

// Of each path the offset at which its value begins.
function offsets(text: string): Map<string, number> {
  const found = new Map<string, number>();
  const tokens = [...text.matchAll(/"(?:[^"\\]|\\.)*"|[{}[\]:,]|[^\s{}[\]:,"]+/g)];
  let at = 0;
  const peek = () => tokens[at]?.[0];

  const value = (path: string) => {
    if (at >= tokens.length) return;
    found.set(path, tokens[at].index);
    if (peek() === "{") members(path, "}");
    else if (peek() === "[") members(path, "]");
    else at += 1;
  };
  const members = (path: string, end: string) => {
    at += 1;
    for (let index = 0; at < tokens.length && peek() !== end; index += 1) {
      const before = at;
      if (end === "]") {
        value(`${path}[${index}]`);
      } else {
        const name = peek()!;
        at += peek() === ":" ? 0 : 1;
        if (peek() === ":") at += 1;
        value(memberPath(path, name));
      }
      if (peek() === ",") at += 1;
      if (at === before) at += 1;
    }
    at += 1;
  };
  value("$");
  return found;
}

function memberPath(path: string, quoted: string): string {
  const name = quoted.slice(1, -1);
  return /^[A-Za-z0-9_-]+$/.test(name) ? `${path}.${name}` : `${path}[${quoted}]`;
}

function lineAt(text: string, offset: number): Place {
  const line = text.slice(0, offset).split("\n").length;
  const from = text.lastIndexOf("\n", offset - 1) + 1;
  const end = text.indexOf("\n", offset);
  return { line, from, to: end < 0 ? text.length : end };
}

// A fault about a member that is missing is at the object that lacks it.
export function placesOf(text: string, faults: { path: string; text: string }[]): Place[] {
  const found = offsets(text);
  return faults.map(fault => {
    const told = /Line (\d+), Column \d+/.exec(fault.text);
    if (told) return lineAt(text, text.split("\n").slice(0, Number(told[1]) - 1).join("\n").length + (told[1] === "1" ? 0 : 1));
    let path = fault.path;
    while (path !== "$" && !found.has(path)) path = path.replace(/(\.[^.[\]]+|\[[^\]]*\])$/, "") || "$";
    return lineAt(text, found.get(path) ?? 0);
  });
}
