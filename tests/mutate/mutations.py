"""Small faults for C++ sources, found in the text alone.

>>> def changed(text):
...     return [text[:m.start] + m.text + text[m.end:] for m in mutations(text)]
>>> changed("return a < 2; // a < 3")
['return a <= 2; // a < 3', 'return a >= 2; // a < 3', 'return a < 3; // a < 3', \
'return a < 1; // a < 3', 'return {}; // a < 3']
>>> changed("if (f(x) &&\\n    y)")
['if (f(x) ||\\n    y)', 'if (!(f(x) &&\\n    y))']
>>> changed("{\\n    emit done(u, \\n        \\"1 + 1\\");\\n}")
['{\\n    ;\\n\\n}']
>>> changed("    const QMutexLocker locker(&_mutex);\\n    QList<int> *list = nullptr;")
[]
>>> changed("    list.reserve(4000);")
['    list.reserve(8000);', '    list.reserve(2000);']
>>> changed("    _on = true;")
['    _on = false;', '    ;']
"""
import collections
import re

Mutation = collections.namedtuple("Mutation", "kind start end text")

# What is no code: comments, literals of text and of single characters, lines of the preprocessor.
NO_CODE = re.compile(r"""//[^\n]* | /\*.*?\*/ | R"(\w*)\(.*?\)\1" | "(?:\\.|[^"\\\n])*"
                         | (?<![0-9a-fA-F])'(?:\\.|[^'\\\n])*' | ^[ \t]*\#(?:\\\n|[^\n])*""",
                     re.VERBOSE | re.DOTALL | re.MULTILINE)

# The formatter puts blanks around operators with two operands, and around no bracket of a template.
SWAPS = {
    "comparison": {"==": "!=", "!=": "==", "<": "<= >=", "<=": "< >", ">": ">= <=", ">=": "> <"},
    "logic": {"&&": "||", "||": "&&"},
    "arithmetic": {"+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "+=": "-=", "-=": "+=",
                   "&": "|", "|": "&", "|=": "&=", "&=": "|="},
}
OPERATOR = re.compile(r"(?<=\s)(?:[=!<>+\-|&]=|&&|\|\||[<>+\-*/%&|])(?=\s)")
STEP = re.compile(r"\+\+|--")
BOOLEAN = re.compile(r"\b(?:true|false)\b")
NUMBER = re.compile(r"(?<![\w.'])(?:\d+\.\d+|\d+)(?![\w.'])")
CONDITION = re.compile(r"\b(?:if|while) \(")
# A null pointer is what "{}" makes, too.
RETURN = re.compile(r"\breturn (?!true;|false;|nullptr;|\{\};)([^;]+);")

KEYWORDS = r"(?!(?:return|if|while|for|switch|else|do|case|using|throw|static_assert|Q_\w+)\b)"
TARGET = r"[*(]*[\w:]+(?:<[\w:, *]+>)?"
SPARING = r"(?![^(]*(?:\.|->)reserve\()"  # which only saves time
CALL = re.compile(r"(?:emit )?" + SPARING + KEYWORDS + TARGET + r"[^\s;(]*\(.*\);\Z", re.DOTALL)
ASSIGNMENT = re.compile(KEYWORDS + TARGET + r"[^\s;]* [-+|&]?= .*;\Z", re.DOTALL)
LEAVING = re.compile(r"(?:return|continue|break);\Z")
DELETION = re.compile(r"delete [^;]*;\Z")


def code_of(text):
    """The text with blanks for all that is no code, each character in its place."""
    def blank(match):
        inside = re.sub(r"[^\n]", " ", match[0])
        return '"' + inside[1:-1] + '"' if match[0][-1] in "\"'" else inside
    return NO_CODE.sub(blank, text)


def closing(code, start, ends):
    """Where the first of these characters is that stands in no bracket opened since; -1 if none."""
    depth = 0
    for position in range(start, len(code)):
        character = code[position]
        if depth == 0 and character in ends:
            return position
        if character in "([{":
            depth += 1
        elif character in ")]}":
            depth -= 1
            if depth < 0:
                return -1
    return -1


def operators(code):
    for match in OPERATOR.finditer(code):
        for kind, swaps in SWAPS.items():
            for other in swaps.get(match[0], "").split():
                yield Mutation(kind, *match.span(), other)
    for match in STEP.finditer(code):
        yield Mutation("arithmetic", *match.span(), "--" if match[0] == "++" else "++")


def constants(code):
    for match in BOOLEAN.finditer(code):
        yield Mutation("constant", *match.span(), "false" if match[0] == "true" else "true")
    for match in NUMBER.finditer(code):
        if "." in match[0]:
            yield Mutation("constant", *match.span(), repr(2 * float(match[0]) + 1))
            continue
        # One more or less of many is hardly a fault.
        number = int(match[0])
        for other in (number + 1, number - 1) if number < 16 else (2 * number, number // 2):
            if other >= 0:
                yield Mutation("constant", *match.span(), str(other))


def conditions(code, text):
    for match in CONDITION.finditer(code):
        start = match.end()
        end = closing(code, start, ")")
        inside = code[start:end]
        if end > 0 and ";" not in inside and " = " not in inside:
            yield Mutation("condition", start, end, "!(" + text[start:end] + ")")


def statements(code):
    """Calls, assignments and early ends that stand for themselves."""
    for match in re.finditer(r"^[ \t]+(?=[\w*(])", code, re.MULTILINE):
        before = code[:match.start()].rstrip()
        if before and before[-1] not in ";{}:)" and not before.endswith(("else", "do")):
            continue
        end = closing(code, match.end(), ";")
        statement = code[match.end():end + 1]
        if any(form.match(statement) for form in (CALL, ASSIGNMENT, LEAVING, DELETION)):
            # The lines behind it keep their numbers.
            yield Mutation("removal", match.end(), end + 1, ";" + "\n" * statement.count("\n"))


def returns(code):
    for match in RETURN.finditer(code):
        yield Mutation("return", *match.span(1), "{}")


def mutations(text):
    """All small faults that this source can be given."""
    code = code_of(text)
    yield from operators(code)
    yield from constants(code)
    yield from conditions(code, text)
    yield from statements(code)
    yield from returns(code)
