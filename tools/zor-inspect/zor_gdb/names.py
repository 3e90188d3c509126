"""Names of types and functions as one would say them. Pure functions."""

import re

# What a template's argument is left out for: it is the one that everybody has.
DEFAULTS = re.compile(
    r"^std::(allocator|char_traits|less|equal_to|hash|default_delete)<|"
    r"^std::(deque|vector)<.*>$"
)
# Only of these is a container the default of an argument.
ADAPTERS = ("std::queue", "std::stack", "std::priority_queue")
STRINGS = {"char": "string", "wchar_t": "wstring", "char16_t": "u16string", "char32_t": "u32string"}
INLINE_NAMESPACES = re.compile(r"\bstd::(__cxx11|__1|__debug|_V2)::")


def short(name):
    """The name with std::string for what a string is, and without the arguments of templates that
    are the usual ones."""
    if not name or "std::" not in name:
        return name
    return _shortened(INLINE_NAMESPACES.sub("std::", name))


def _shortened(text):
    """Shortens every template's arguments, from the inside out."""
    result = []
    at = 0
    while at < len(text):
        end = _end_of_arguments(text, at) if text[at] == "<" else None
        if end is None or _is_operator("".join(result)):
            result.append(text[at])
            at += 1
            continue
        arguments = [_shortened(part.strip()) for part in _split(text[at + 1 : end])]
        template = re.search(r"[\w:]*$", "".join(result)).group()
        result = [_with_arguments("".join(result), template, arguments)]
        at = end + 1
        # A string is followed by its arguments' blank in some demangled names.
        while text[at : at + 2] in (" >", " ,"):
            at += 1
    return "".join(result)


def _is_operator(before):
    return re.search(r"operator\s*<?$", before) is not None


def _end_of_arguments(text, start):
    """Where the bracket that opens at start is closed; None if it is not."""
    depth = 0
    for at in range(start, len(text)):
        if text[at] in "<({":
            depth += 1
        elif text[at] in ")}" or (text[at] == ">" and text[at - 1] != "-"):
            depth -= 1
            if depth == 0:
                return at
    return None


def _split(text):
    parts, depth, begin = [], 0, 0
    for at, character in enumerate(text):
        if character in "<({":
            depth += 1
        elif character in ")}" or (character == ">" and text[at - 1] != "-"):
            depth -= 1
        elif character == "," and depth == 0:
            parts.append(text[begin:at])
            begin = at + 1
    return parts + [text[begin:]] if text.strip() else []


def _with_arguments(before, template, arguments):
    kept = list(arguments)
    while len(kept) > 1 and _is_default(template, kept[-1]):
        kept.pop()
    if template == "std::basic_string" and len(kept) == 1 and kept[0] in STRINGS:
        return before[: -len("basic_string")] + STRINGS[kept[0]]
    if template == "std::basic_string_view" and len(kept) == 1 and kept[0] in STRINGS:
        return before[: -len("basic_string_view")] + STRINGS[kept[0]] + "_view"
    return f"{before}<{', '.join(kept)}>"


def _is_default(template, argument):
    if not template.startswith("std::") or not DEFAULTS.match(argument):
        return False
    container = argument.startswith(("std::deque<", "std::vector<"))
    return not container or template in ADAPTERS
