# SPDX-License-Identifier: GPL-2.0-only OR BSD-2-Clause
"""The faults that tools/mutate plants: where in the sources they can stand, and which are drawn.

A source is looked at line by line, without its comments and with its texts covered, so that what
is found is code: the style has one statement a line and a blank on each side of an operator. What
is planted need not compile; the compiler says so soon enough.
"""

import collections
import os
import random
import re

Mutant = collections.namedtuple("Mutant", "kind file line old new")

RELATIONS = {"==": ["!="], "!=": ["=="], "<": ["<=", ">="], "<=": ["<", ">"],
             ">": [">=", "<="], ">=": [">", "<"]}
LOGIC = {"&&": ["||"], "||": ["&&"]}
ARITHMETIC = {"+": ["-"], "-": ["+"], "*": ["/"], "/": ["*"], "%": ["/"],
              "<<": [">>"], ">>": ["<<"], "&": ["|"], "|": ["&"], "^": ["|"],
              "+=": ["-="], "-=": ["+="], "|=": ["&="], "&=": ["|="],
              "<<=": [">>="], ">>=": ["<<="], "++": ["--"], "--": ["++"]}
WORDS = {"true": ["false"], "false": ["true"]}
STATUSES = ["tarv_stat_ok", "tarv_stat_pending", "tarv_stat_timeout", "tarv_stat_error",
            "tarv_stat_not_found"]
LEVELS = {"TARV_ERROR": ["TARV_WARNING"], "TARV_WARNING": ["TARV_INFO"],
          "TARV_INFO": ["TARV_DEBUG"], "TARV_DEBUG": ["TARV_FUNC"]}

FILL = "\x01"  # what stands for the letters of a literal while code is looked at
NOT_CODE = re.compile(r"//[^\n]*|/\*.*?\*/|^[ \t]*#(?:[^\n\\]|\\.)*"
                      r"|\"(?:[^\"\\\n]|\\.)*\"|(?<!\d)'(?:[^'\\\n]|\\.)+'", re.S | re.M)
# Where no check can be asked to see a fault: the compiler looks at the first, the next two change
# nothing but speed or nothing at all, and the last is for a developer who follows each step.
LEFT_ALONE = re.compile(r"\b(?:static_assert|__builtin_prefetch)\b[^;]*;|\bsizeof \w+\[\d\]"
                        r"|\bTARV_LOG(?:_FROM\([^,;]*,|\()\s*TARV_FUNC\b[^;]*;")
NO_STATEMENT = re.compile(r"\s*(template|using|typedef|class|struct|enum|union|namespace|extern|"
                          r"friend|public|private|protected)\b")
DECLARATION = re.compile(r"(const|constexpr|constinit|static|inline|explicit|unsigned|kptr|auto)\b"
                         r"|[\w:]+(<[^;=]*>)?[*&]* [*&]*\w")
NUMBER = re.compile(r"(?<![\w.'])(0[xX][0-9A-Fa-f]+|0[0-7]+|\d+)(?=[uUlL]*\b)(?!['.])")
LITERAL = re.compile(f'"({FILL}*)"')
NO_LETTERS = re.compile(r"\\.|%[-+ #0-9.*]*[hlLzjt]*[A-Za-z%]|\$[^$]*\$")


def blank(text):
    return re.sub(r"[^\n]", " ", text)


def code_of(text):
    """The text with blanks for what is no code, and FILL for what stands in quotes."""
    def hide(found):
        whole = found[0]
        return whole[0] + FILL * (len(whole) - 2) + whole[-1] if whole[0] in "\"'" else blank(whole)
    return LEFT_ALONE.sub(lambda found: blank(found[0]), NOT_CODE.sub(hide, text))


def words_of(table, before=r"\b", after=r"\b"):
    longest_first = sorted(table, key=lambda word: (-len(word), word))
    return re.compile(before + "(" + "|".join(map(re.escape, longest_first)) + ")" + after)


# What of a line's code is replaced by what: kind, pattern, table. An operator stands between
# blanks; what does not belongs to a type.
REPLACED = [
    ("relation", words_of(RELATIONS, r"(?<= )", r"(?= |$)"), RELATIONS),
    ("logic", words_of(LOGIC, r"(?<= )", r"(?= |$)"), LOGIC),
    ("arithmetic", words_of(ARITHMETIC, r"(?<= )", r"(?= |$)"), ARITHMETIC),
    ("arithmetic", re.compile(r"(\+\+|--)"), ARITHMETIC),
    ("constant", words_of(WORDS), WORDS),
    ("level", words_of(LEVELS), LEVELS),
]


def replaced(line, found, words):
    return [line[:found.start(1)] + word + line[found.end(1):] for word in words]


def neighbours(number):
    base, form = 10, "{}"
    if number[:2] in ("0x", "0X"):
        base, form = 16, "0x{:X}"
    elif number[0] == "0" and len(number) > 1:
        base, form = 8, "0{:o}"
    value = int(number, base)
    return [form.format(other) for other in (value + 1, value - 1) if other >= 0]


def condition_end(code, start):
    """The place of the bracket that closes the one at `start`, or None in another line."""
    depth = 0
    for at in range(start, len(code)):
        depth += {"(": 1, ")": -1}.get(code[at], 0)
        if depth == 0:
            return at
    return None


def is_statement(code, before):
    """Whether a line is one whole statement that can be left out."""
    text = code.strip()
    return (text.endswith(";") and code.startswith("    ") and text.count("(") == text.count(")")
            and (before.endswith((";", "{", "}", ":", ")")) or before.endswith("else"))
            and not re.match(r"(return\b.|(for|if|while|do|case|default|else)\b|\})", text)
            and not DECLARATION.match(text))


def faults_of_line(line, code, before):
    """Yields (kind, [the line with a fault, ...]), a pair for each place in the line."""
    if NO_STATEMENT.match(code):
        return
    for kind, pattern, table in REPLACED:
        for found in pattern.finditer(code):
            yield kind, replaced(line, found, table[found[1]])
    for found in NUMBER.finditer(code):
        yield "constant", replaced(line, found, neighbours(found[1]))
    for found in re.finditer(r"\b(?:if|while) (?=\()", code):
        end = condition_end(code, found.end())
        if end is not None:
            yield "negation", [line[:found.end()] + "(!" + line[found.end():end + 1] + ")" +
                               line[end + 1:]]
    for found in re.finditer(r"(!)(?=[\w(])", code):
        yield "negation", replaced(line, found, [""])
    if re.match(r"\s*return\b", code):
        for found in words_of(STATUSES).finditer(code):
            yield "status", replaced(line, found, [word for word in STATUSES if word != found[1]])
        for found in re.finditer(r"return ((?:status|result|code));", code):
            yield "status", replaced(line, found, STATUSES)
    if is_statement(code, before):
        yield "dropped", [line[:len(line) - len(line.lstrip())] + "{}"]
    for found in LITERAL.finditer(code):
        texts = list(wrong_letters(line, *found.span(1)))
        if texts:
            yield "text", texts


def wrong_letters(line, start, end):
    text = NO_LETTERS.sub(lambda found: FILL * len(found[0]), line[start:end])
    for at, letter in enumerate(text, start):
        if letter.isalpha() and letter.isascii():
            yield line[:at] + {"x": "y", "X": "Y"}.get(letter, "X" if letter.isupper() else "x") + \
                line[at + 1:]


def places_of(root, files):
    """All places: {kind: [(file, line number, line, [the line with a fault, ...]), ...]}."""
    places = collections.defaultdict(list)
    for file in files:
        with open(os.path.join(root, file), encoding="utf-8") as source:
            text = source.read()
        before = ""
        for number, (line, code) in enumerate(zip(text.split("\n"), code_of(text).split("\n")), 1):
            for kind, faulty in faults_of_line(line, code, before):
                places[kind].append((file, number, line, faulty))
            before = code.rstrip() or before
    return places


def draw(places, seed):
    """Yields mutants without end in sight: each kind as often as the others, no place twice."""
    chance = random.Random(seed)
    left = {kind: list(rows) for kind, rows in sorted(places.items())}
    while left:
        kind = chance.choice(sorted(left))
        file, number, old, faulty = left[kind].pop(chance.randrange(len(left[kind])))
        if not left[kind]:
            del left[kind]
        yield Mutant(kind, file, number, old, chance.choice(faulty))
