"""How lines of C++ can be broken: an operator for another, a constant off by one, a condition negated, a
call or an assignment left out. The lines are those of clang-format."""

import collections
import random
import re

# What stands between `start` and `end` of the file becomes `text`.
Break = collections.namedtuple("Break", "path line kind start end text")

# Rows of the tables of names: a third as many lines as all others together, and all alike.
NAME_ROW = re.compile(r'^ *\w*\{\w+, "', re.M)
NOT_CODE = re.compile(r'(?P<quoted>R"\w*\(.*?\)\w*"|"(?:\\.|[^"\\\n])*"|(?<![0-9A-Fa-f])\'(?:\\.|[^\'\\\n])+\')'
                      r"|//[^\n]*|/\*.*?\*/|^[ \t]*#(?:\\\n|[^\n])*|\bstatic_assert\(.*?\);", re.S | re.M)


def masked(source):
    """The source, as long as before, with nothing in its quotes, and without comments, directives,
    assertions and rows of names."""
    def blank(match):
        if match["quoted"]:
            return '"' + re.sub(r"[^\n]", "\1", match[0][1:-1]) + '"'
        return re.sub(r"[^\n]", " ", match[0])
    return NAME_ROW.sub(lambda match: re.sub(r"\w", " ", match[0]), NOT_CODE.sub(blank, source))


def closing(code, at):
    """The place of the bracket that closes the one at `at`."""
    pair = {"(": "()", "{": "{}"}[code[at]]
    depth = 0
    for match in re.compile(f"[{pair}]").finditer(code, at):
        depth += 1 if match[0] == pair[0] else -1
        if depth == 0:
            return match.start()
    return len(code)


def swapped(*pairs):
    table = dict(pairs) | {b: a for a, b in pairs}
    return lambda match: [table[match[0]]]


def order(match):
    return {"<": ["<=", ">="], "<=": ["<", ">"], ">": [">=", "<="], ">=": [">", "<"]}[match[0]]


def off_by_one(match):
    digits = match[1].replace("'", "")
    value = int(digits, 16 if digits.startswith("0x") else 10)
    wrong = [1 - value] if value < 2 else [value - 1, value + 1]
    return [(hex(other) if digits.startswith("0x") else str(other)) + match[2] for other in wrong]


# clang-format puts blanks around binary operators, and none around the brackets of templates and the
# signs of references.
TOKENS = [
    ("equality", r"(?<= )[=!]=(?=\s)", swapped(("==", "!="))),
    ("order", r"(?<= )[<>]=?(?=\s)", order),
    ("logic", r"(?<= )(?:&&|\|\|)(?=\s)", swapped(("&&", "||"))),
    ("arithmetic", r"(?<=[\w)\]}\"] )[+-]=?(?=\s)", swapped(("+", "-"), ("+=", "-="))),
    ("step", r"\+\+|--", swapped(("++", "--"))),
    ("truth", r"\b(?:true|false)\b", swapped(("true", "false"))),
    ("constant", r"(?<![\w.])(0x[0-9A-Fa-f']+|\d[\d']*)([uUlL]*)(?![\w.])", off_by_one),
    ("not", r"!(?=[\w(:*])", lambda match: [""]),
]


def conditions(code):
    """Start and end of each condition of an if, without its init-statement."""
    for match in re.finditer(r"\bif (?:constexpr )?\(", code):
        start, end = match.end(), closing(code, match.end() - 1)
        yield max(start, code.rfind("; ", start, end) + 2), end


def returns(code):
    """Start and end of what functions that say bool return, unless it is a literal."""
    for match in re.finditer(r"\bbool [\w:~]+\(", code):
        body = re.compile(r"\)[\w\s]*(?=\{)").match(code, closing(code, match.end() - 1))
        if body:
            literal = r"(?!(?:true|false|nullptr|\d+);)"
            values = re.compile(rf"(?<=\breturn ){literal}[^;{{}}]+(?=;)")
            yield from (value.span() for value in values.finditer(code, body.end(), closing(code, body.end())))


PREFIX = re.compile(r"\s*(?:else\b|default:|case [^:]+(?:::[^:]+)*:(?!:)|(?:if(?: constexpr)?|for|while) (?=\())?\s*")
CALL = re.compile(r"(?!return\b|static_cast<void>|[A-Z]\w*\(\)$)[\w:.<>\[\]()*-]+\(\)$")
ASSIGNMENT = re.compile(r"(?![A-Z]\w*\(\) )[\w:.>\[\]()*-]+ (?:[-+*/%|&^]|<<|>>)?= .", re.S)
OWN_CALL = re.compile(r"[A-Z]\w*\(\)$")  # in a header the declaration of a constructor


def is_removable(text, path):
    """Whether a statement is a call or an assignment; declarations have a blank before their name."""
    depth, kept = 0, []
    for sign in text:
        depth -= sign in ")]}"
        kept += sign if depth == 0 else ""
        depth += sign in "([{"
    flat = "".join(kept)
    return bool(CALL.match(flat) or ASSIGNMENT.match(flat) or OWN_CALL.match(flat) and path.endswith(".cpp"))


def behind_prefix(code, start, end):
    """Where the statement itself starts, behind `else`, labels and `if (...)`."""
    while (match := PREFIX.match(code, start, end)).end() != start:
        start = match.end()
        if match[0].strip().startswith(("if", "for", "while")):
            start = closing(code, start) + 1
    return start


def statements(code):
    """Start and end of each statement that ends in a semicolon, without that."""
    starts, brackets = [0], []
    for match in re.finditer(r"[(){};]", code):
        at, sign = match.start(), match[0]
        if sign in "({":
            brackets.append(sign)
            starts += [at + 1] if sign == "{" else []
        elif sign == ")":
            brackets.pop()
        elif sign == "}":
            brackets.pop()
            starts.pop()
            if brackets[-1:] != ["("]:
                starts[-1] = at + 1
        elif brackets[-1:] == ["{"]:
            yield behind_prefix(code, starts[-1], at), at
            starts[-1] = at + 1


def breaks_of(path, source):
    """All breaks of a file."""
    code = masked(source)
    found = [(kind, *match.span(), text) for kind, pattern, broken in TOKENS
             for match in re.finditer(pattern, code) for text in broken(match)]
    found += [("condition", start, end, f"!({source[start:end]})") for start, end in conditions(code)]
    found += [("return", start, end, f"!({source[start:end]})") for start, end in returns(code)]
    found += [("statement", start, end, "\n" * source.count("\n", start, end))
              for start, end in statements(code) if is_removable(code[start:end], path)]
    return [Break(path, code.count("\n", 0, start) + 1, kind, start, end, text) for kind, start, end, text in found]


def drawn(breaks, seed):
    """The breaks in random order: a line, then a kind that applies to it, then one of these."""
    rng = random.Random(seed)
    lines = collections.defaultdict(list)
    for each in breaks:
        lines[each.path, each.line].append(each)
    places = sorted(lines)
    while places:
        at = rng.randrange(len(places))
        there = lines[places[at]]
        kind = rng.choice(sorted({each.kind for each in there}))
        chosen = rng.choice([each for each in there if each.kind == kind])
        there.remove(chosen)
        if not there:
            places.pop(at)
        yield chosen


def shown(broken, source):
    """The lines before and after, each as one."""
    first = source.rfind("\n", 0, broken.start) + 1
    last = source.find("\n", broken.end)
    after = source[first:broken.start] + broken.text + source[broken.end:last]
    return " ".join(source[first:last].split()), " ".join(after.split())
