"""Makes the mutants of a source file: one small change of its text each.

Works on tokens. What a token means is read off the layout that clang-format gives the sources: a
binary operator has blanks around it, a body always has braces. A change that this misjudges does
not compile, and is counted as that.
"""
import re
from dataclasses import dataclass

TOKEN = re.compile(r"""
    (?P<comment>//[^\n]*|/\*.*?\*/)
  | (?P<directive>^\#[^\n]*)
  | (?P<string>"(?:\\.|[^"\\\n])*")
  | (?P<character>'(?:\\.|[^'\\\n])*')
  | (?P<number>0[xX][0-9a-fA-F]+|\d+)
  | (?P<name>[A-Za-z_]\w*)
  | (?P<sign><<=|>>=|->|::|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||\+=|-=|[^\s\w])
""", re.VERBOSE | re.MULTILINE | re.DOTALL)

RELATIONS = {"<": ["<=", ">="], ">": [">=", "<="], "<=": ["<", ">"], ">=": [">", "<"],
             "==": ["!="], "!=": ["=="]}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "<<": ">>", "+=": "-=", "&": "|"}
STEPS = {"++": "--", "--": "++"}

# Each name is exchanged for the next one of its group, the last for the first.
NEIGHBOURS = [
    "EINVAL EISDIR EFBIG ELOOP EINTR ENOENT EEXIST ENOTSUP".split(),
    "TLS_PROFILE_LEVEL_DEFAULT TLS_PROFILE_LEVEL_MODERN TLS_PROFILE_LEVEL_OLD".split(),
    "kServiceNotJoined kDataStoreUnavailable".split(),
    "kServicesDir kConfigDir".split(),
    "kSystemReloaderDir kPackageReloaderDir".split(),
    "kModern kIntermediate kOld".split(),
    "kCommon kFromTls10 kFromTls12 kFromTls13".split(),
    "INTERMEDIATE_CIPHER_LIST OLD_CIPHER_LIST".split(),
    "TLS13_CIPHERSUITES SERVER_GROUPS".split(),
    "kValidator kFrameworkConfig kProfileConfig kApiProvider".split(),
    "kMaxNesting kMaxLinks".split(),
    "S_ISREG S_ISDIR S_ISLNK".split(),
    "O_RDONLY O_WRONLY".split(),
    "st_uid st_gid".split(),
    "can_join can_leave".split(),
    "LOG_ERR LOG_WARNING".split(),
    "isString isInt isObject isArray".split(),
    "get_display_name get_i18n_display_name get_service_name".split(),
    "display_name_ i18n_display_name_ mustache_path_ reloader_path_ service_name_".split(),
    "has_reloader has_mustache has_i18n_display_name".split(),
    "template_path output_path".split(),
]
NEXT = {name: group[(place + 1) % len(group)]
        for group in NEIGHBOURS for place, name in enumerate(group)}

NO_STATEMENT = re.compile(r"(return|const|constexpr|static|using|struct|class|for|if|while|switch|"
                          r"case|namespace|template|explicit|decltype)\b|.*= (delete|default);$",
                          re.DOTALL)
CALL_OR_ASSIGNMENT = re.compile(r"\*?(::)?[A-Za-z_][\w:]*(\.|->|\(|\[| [-+]?= )|\+\+|--|"
                                r"static_cast<void>\(")
FUNCTION = re.compile(r"^(?:(?=\w)(?!namespace|struct|class|constexpr|using|template)"
                      r"(?:[^\n(]*[ &*])?|  (?!if|for|while|switch|return)(?:[\w:&]+ )*)"
                      r"([\w:~]+)\([^\n;]*(?:[{,(]|\})$", re.MULTILINE)


@dataclass
class Mutant:
    file: str
    start: int
    end: int
    new: str
    operator: str
    key: str = ""   # what the list of survivors names it by
    lines: tuple = ()


class Source:
    """A file's text, its tokens without comments and directives, and the mutants found so far."""

    def __init__(self, file, text, log_groups):
        self.file, self.text, self.log_groups = file, text, log_groups
        self.tokens = [match for match in TOKEN.finditer(text)
                       if match.lastgroup not in ("comment", "directive")]
        self.words = [match.group() for match in self.tokens]
        self.partner = self.match_brackets()
        self.mutants = []

    def match_brackets(self):
        partner, opened = {}, []
        for place, word in enumerate(self.words):
            if word in ("(", "[", "{"):
                opened.append(place)
            elif word in (")", "]", "}"):
                partner[place] = opened.pop()
                partner[partner[place]] = place
        return partner

    def replace(self, first, last, new, operator):
        """Adds a mutant that replaces the tokens first to last by the new text."""
        self.mutants.append(Mutant(self.file, self.tokens[first].start(), self.tokens[last].end(),
                                   new, operator))

    def span(self, first, last):
        return self.text[self.tokens[first].start():self.tokens[last].end()]

    def is_binary(self, place):
        token = self.tokens[place]
        return (self.text[token.start() - 1] in " \n" and self.text[token.end()] in " \n"
                and self.words[place - 1] not in ("(", ",", "=", "return"))

    def is_declared_here(self, place):
        return re.match(r"\s*(\[\])?\s*=[^=]", self.text[self.tokens[place].end():]) is not None

    def one_relation(self, first, last):
        """Whether the relation's own mutants negate the expression already."""
        words = [self.words[place] for place in range(first, last + 1)
                 if self.words[place] in RELATIONS and self.is_binary(place)]
        whole = not any(word in ("&&", "||") for word in self.words[first:last + 1])
        return whole and (len(words) == 1 or self.words[first] == "!")

    # The operators

    def mutate_signs(self):
        for place, word in enumerate(self.words):
            if word in RELATIONS and self.is_binary(place):
                for new in RELATIONS[word]:
                    self.replace(place, place, new, "relation")
            elif word in ("&&", "||") and self.is_binary(place):
                self.replace(place, place, "||" if word == "&&" else "&&", "and-or")
            elif word in ARITHMETIC and self.is_binary(place):
                self.replace(place, place, ARITHMETIC[word], "arithmetic")
            elif word in STEPS:
                self.replace(place, place, STEPS[word], "arithmetic")
            elif word == "!":
                self.replace(place, place, "", "remove !")
            elif word == "|" and self.is_binary(place):
                self.replace(place, place + 1, "", "drop flag")
                if self.words[place - 2] != "|" and self.words[place - 1] != "O_RDONLY":  # 0
                    self.replace(place - 1, place, "", "drop flag")

    def mutate_literals(self):
        for place, token in enumerate(self.tokens):
            word = token.group()
            if token.lastgroup == "number":
                octal = re.fullmatch(r"0[0-7]+", word) is not None
                value = int(word, 8 if octal else 0)
                for new in (value + 1, value - 1):
                    if new >= 0:
                        self.replace(place, place, f"0{new:o}" if octal else str(new), "constant")
            elif token.lastgroup == "string":
                for new in changed_strings(word):
                    self.replace(place, place, new, "string")
            elif token.lastgroup == "character":
                self.replace(place, place, "'x'", "string")
            elif word in ("true", "false"):
                self.replace(place, place, "false" if word == "true" else "true", "true-false")

    def mutate_names(self):
        for place, word in enumerate(self.words):
            if word in NEXT and not self.is_declared_here(place):
                self.replace(place, place, NEXT[word], "neighbour")
            elif self.words[place - 2:place] == ["log", "::"] and self.log_groups[word] != word:
                self.replace(place, place, self.log_groups[word], "neighbour")
            elif word in ("break", "continue"):
                self.replace(place, place, "continue" if word == "break" else "break",
                             "break-continue")

    def mutate_conditions(self):
        for place, word in enumerate(self.words):
            if word in ("if", "while"):
                first, last = place + 2, self.partner[place + 1] - 1
            elif word == "?":
                first, last = self.start_of_condition(place), place - 1
            else:
                continue
            if not self.one_relation(first, last):
                self.replace(first, last, f"!({self.span(first, last)})", "negate condition")

    def start_of_condition(self, place):
        while True:
            place -= 1
            if self.words[place] in (")", "]", "}"):
                place = self.partner[place]
            elif self.words[place] in ("=", "+=", "return", "(", ",", "?", ":", ";", "{"):
                return place + 1

    def mutate_returns(self):
        for place, word in enumerate(self.words):
            if word != "return" or self.words[place + 1] == ";":
                continue
            last = self.words.index(";", place) - 1
            value = self.span(place + 1, last)
            if value in ("true", "false", "nullptr") or re.fullmatch(r"-?\d+", value):
                continue
            if not re.fullmatch(r"[\w:]+\(\)|std::nullopt", value):  # is {} already
                self.replace(place + 1, last, "{}", "return value")
            self.replace(place + 1, last, "true", "return value")

    def mutate_statements(self):
        start = depth = 0
        for place, word in enumerate(self.words):
            if word in ("(", "["):
                depth += 1
            elif word in (")", "]"):
                depth -= 1
            elif depth > 0:
                continue
            elif word == ";":
                text = self.span(start, place)
                if (text in ("return;", "break;", "continue;")
                        or CALL_OR_ASSIGNMENT.match(text) and not NO_STATEMENT.match(text)):
                    self.replace(start, place, ";", "delete statement")
                start = place + 1
            elif word in ("{", "}") or word == ":" and self.words[start] in (
                    "case", "default", "public", "private"):
                start = place + 1

    # What identifies a mutant

    def statement_lines(self, mutant):
        """The lines from the statement's first to the mutant's last."""
        start = max(self.text.rfind(sign, 0, mutant.start) for sign in ";{}") + 1
        start += len(self.text[start:mutant.start]) - len(self.text[start:mutant.start].lstrip())
        return tuple(range(self.text.count("\n", 0, start) + 1,
                           self.text.count("\n", 0, mutant.end) + 2))

    def name_mutants(self):
        functions = [(match.start(), match.group(1)) for match in FUNCTION.finditer(self.text)]
        seen = {}
        self.mutants.sort(key=lambda mutant: (mutant.start, mutant.end))
        for mutant in self.mutants:
            function = [""] + [name for start, name in functions if start <= mutant.start]
            line_start = self.text.rfind("\n", 0, mutant.start) + 1
            line = self.text[line_start:self.text.index("\n", mutant.start)].strip()
            old = " ".join(self.text[mutant.start:mutant.end].split())
            new = " ".join(mutant.new.split()) or "nothing"
            key = f"{self.file} | {function[-1]} | {line} | {mutant.operator}: {old} -> {new}"
            seen[key] = seen.get(key, 0) + 1
            mutant.key = key if seen[key] == 1 else f"{key} #{seen[key]}"
            mutant.lines = self.statement_lines(mutant)


def changed_strings(word):
    """Empty; one letter changed; the first two elements of a list exchanged."""
    text = word[1:-1]
    if text:
        yield '""'
    letters = [match.start() for match in re.finditer(r"(?<![%\\])[A-Za-z]", text)]
    if letters:
        middle = min(letters, key=lambda place: abs(place - len(text) // 2))
        changed = "y" if text[middle] == "x" else "x"
        yield f'"{text[:middle]}{changed}{text[middle + 1:]}"'
    elif text:
        yield '"x"'
    elements = text.split(":")
    if len(elements) > 2 and " " not in text:
        yield '"' + ":".join([elements[1], elements[0]] + elements[2:]) + '"'


def log_neighbours(header):
    """Each message's function → the next one that takes the same arguments."""
    groups = {}
    for kind, name, arguments in re.findall(
            r"^(LINE\w*|inline void )(?:\(?)(\w+)(?:,|\((.*)\) )", header, re.MULTILINE):
        groups.setdefault(arguments or kind != "LINE", []).append(name)
    return {name: names[(place + 1) % len(names)]
            for names in groups.values() for place, name in enumerate(names)}


def mutants_of(file, text, log_header):
    source = Source(file, text, log_neighbours(log_header))
    source.mutate_signs()
    source.mutate_literals()
    source.mutate_names()
    source.mutate_conditions()
    source.mutate_returns()
    source.mutate_statements()
    source.name_mutants()
    return source.mutants
