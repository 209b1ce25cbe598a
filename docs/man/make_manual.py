#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Prints a manual page, mdoc(7), of a group of functions: make_manual.py HEADER TEMPLATE

A group is one or several sections of telvora.h, "--- NAME ---". In the template, the line `.\\" names: NAME...` becomes
the names of its functions, `.\\" synopsis: NAME...` their declarations, and `.\\" description: NAME...` the comments and
types.
"""
import re
import sys
import textwrap

FUNCTION = re.compile(r"(?:TELVORA_API |TELVORA_MUST_USE )+([\w\s*]*?[\s*])(telvora_\w+)\(([^)]*)\);")


def parts(section):
    """The comments of a section, each with the text of the declarations that follow it."""
    # A comment within a type belongs to it.
    pieces = re.findall(r"^/\*(.*?)\*/\n(.*?)(?=^/\*|\Z)", section, re.DOTALL | re.MULTILINE)
    return [(re.sub(r"^ \* ?", "", comment, flags=re.MULTILINE).strip(), code.strip()) for comment, code in pieces]


def functions(code):
    return [(re.sub(r"\s+", " ", kind).strip(), name, re.sub(r"\s+", " ", arguments).split(", "))
            for kind, name, arguments in FUNCTION.findall(code)]


def escaped(text):
    return text.replace("\\", "\\e")


def prose(comment):
    """A comment's paragraphs, one sentence a line; its indented lines are literal."""
    for paragraph in re.split(r"\n\n", comment):
        lines = paragraph.split("\n")
        if all(line.startswith("    ") for line in lines):
            yield from [".Bd -literal", *(escaped(line) for line in textwrap.dedent(paragraph).split("\n")), ".Ed"]
            continue
        text = re.sub(r"(?<=[.:;]) (?=[A-Z`])", "\n", escaped(" ".join(line.strip() for line in lines)))
        yield from (".Pp", *re.sub(r"`([^`]*)`", r"\\fI\1\\fP", text).split("\n"))


def description(section):
    for comment, code in parts(section):
        comment = re.sub(r"^--- .* -+\n+", "", comment)
        named = functions(code)
        types = FUNCTION.sub("", code).strip()
        if named:
            # The declarations of types that follow have no comment of their own.
            yield ".Pp"
            yield from (line for _, name, _ in named for line in (f".Fn {name}", ".br"))
            yield from list(prose(comment))[1:]
        elif comment:
            yield from prose(comment)
        if types:
            yield from [".Bd -literal", *(escaped(line) for line in types.split("\n")), ".Ed"]


def synopsis(section):
    for kind, name, arguments in functions(section):
        yield from (f".Ft {kind}", ".Fo " + name, *(f'.Fa "{argument}"' for argument in arguments), ".Fc")


def names(section):
    named = [name for _, name, _ in functions(section)]
    return [f".Nm {name} ," for name in named[:-1]] + [f".Nm {named[-1]}"]


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        header = file.read().split("#ifdef __cplusplus\n}")[0]
    found = re.findall(r"^(/\* --- (\w+) -.*?)(?=^/\* ---|\Z)", header, re.DOTALL | re.MULTILINE)
    sections = {name: text for text, name in found}
    makers = {"names": names, "synopsis": synopsis, "description": description}
    with open(sys.argv[2], encoding="utf-8") as template:
        for line in template:
            made = re.fullmatch(r'\.\\" (names|synopsis|description): ([\w ]+)\n', line)
            group = "".join(sections[name] for name in made[2].split()) if made else ""
            sys.stdout.write("\n".join(makers[made[1]](group)) + "\n" if made else line)


if __name__ == "__main__":
    main()
