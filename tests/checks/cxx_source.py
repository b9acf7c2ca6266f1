# What the checks need to know of C++ text: the same text with its comments, and on request its literals, blanked out.
import re

# In the order of trial; a digit separator is part of its number, so that 1'000 opens no character literal.
_TOKENS = re.compile(
    r"""
    (?P<line_comment>//(?:\\\n|[^\n])*)
  | (?P<block_comment>/\*.*?(?:\*/|\Z))
  | (?P<raw>(?:u8|[uUL])?R"(?P<mark>[^()\\\s]{0,16})\(.*?\)(?P=mark)")
  | (?P<number>\b[0-9](?:'?[0-9A-Za-z_.])*)
  | (?P<text>"(?:\\.|[^"\\\n])*")
  | (?P<character>'(?:\\.|[^'\\\n])*')
    """,
    re.VERBOSE | re.DOTALL,
)


def _blank(text):
    return re.sub(r"[^\n]", " ", text)


def without_comments(text, keep_literals=True):
    """The text with every comment as blanks, and every string and character literal too unless kept; lines stay where they are."""

    def replace(match):
        kind = match.lastgroup
        if kind in ("line_comment", "block_comment"):
            return _blank(match.group())
        if kind == "number" or keep_literals:
            return match.group()
        return _blank(match.group())

    return _TOKENS.sub(replace, text)


def line_of(text, position):
    return text.count("\n", 0, position) + 1
