#!/usr/bin/python3
# SPDX-License-Identifier: MIT
"""Makes the library's manual pages from the comments of the public headers.

  manual.py DIR     man7/libfetchrig.7, a page of man3 for each family of calls, and a name for each dl_ and qxfr_ call

The headers have one form throughout: a line "/* ---- TITLE */" opens a family, "/** ... */" is about the declaration
below it, and another comment at the start of a line is about all that follow."""
import pathlib
import re
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent
DIVIDER = re.compile(r"/\* -{20,} (.*) \*/\n")
LINES = r"[^\n]*\{\n(?:[^\n]*\n)*?\}[^\n]*\n|[^\n]*\n"
ITEM = re.compile(rf"^(/\*.*?\*/)\n((?:(?!/\*|#endif|#ifdef|\n)(?:{LINES}))*)", re.S | re.M)
REFERENCE = ["libfetchrig (7)", "fetchrig (1)"]


def comment_paragraphs(comment):
    """The text of a comment, a paragraph each."""
    lines = re.sub(r"^/\*\*?( @file)?|\*/$", "", comment).split("\n")
    text = "\n".join(re.sub(r"^ \* ?", "", line).strip() for line in lines)
    return [" ".join(part.split()) for part in text.split("\n\n") if part.strip()]


def plain(text):
    """What the formatter takes as it is."""
    return re.sub(r"(?m)^([.'])", r"\\&\1", text.replace("\\", "\\e"))


def prose(text):
    text = re.sub(r"(?<![\w-])-(?=\d)", r"\\-", plain(text))
    text = re.sub(r"`([^`]+)`", r"\\fI\1\\fR", text)
    return re.sub(r"\b(\w+)\(\)", r"\\fB\1\\fR()", text)


class Family:
    """The calls and the records under one title of the headers."""

    def __init__(self, title):
        self.title = title.split(" (")[0]
        words = re.split(r" (?:and|over) ", self.title)[0].lower().split()
        self.page = "_".join(["fetchrig", *words])
        self.header, self.remarks, self.calls, self.records = "fetchrig.h", [], [], []

    def names(self):
        return [re.search(r"(\w+)\(", declaration)[1] for _, declaration in self.calls]

    def add(self, header, comment, declaration):
        code = declaration.replace("FETCHRIG_API ", "").rstrip("\n")
        if not code:
            self.remarks += comment_paragraphs(comment)
        elif header == "fetchrig_types.h":
            self.records.append(comment.replace("/**", "/*") + "\n" + code.replace("/**<", "/*"))
        else:
            self.header = header
            self.calls.append((comment, re.sub(r"\s*FETCHRIG_PRINTF\(.*?\)", "", code)))

    def write(self, directory, others, heading):
        see = [f"{other.page} (3)" for other in others if other is not self]
        code = [call for _, call in self.calls] or ["/* records and constants only */"]
        lines = [heading(self.page, 3), ".SH NAME", f"{', '.join([self.page, *self.names()])} \\- {self.title}",
                 ".SH SYNOPSIS", ".nf", f"#include <{self.header}>", ".PP", *map(plain, code), ".fi",
                 ".SH DESCRIPTION", "What holds for every call is in libfetchrig(7)."]
        for remark in self.remarks:
            lines += [".PP", prose(remark)]
        for name, (comment, _) in zip(self.names(), self.calls):
            lines.append(f".SS {name}()")
            lines.append("\n.PP\n".join(map(prose, comment_paragraphs(comment))))
        if self.records:
            lines += [".SH RECORDS AND CONSTANTS", ".EX", *map(plain, self.records), ".EE"]
        lines.append(references(REFERENCE[:1] + see))
        (directory / f"{self.page}.3").write_text("\n".join(lines) + "\n")
        for name in self.names():
            if name.startswith(("dl_", "qxfr_")):
                (directory / f"{name}.3").write_text(f".so man3/{self.page}.3\n")


def references(pages):
    return "\n".join([".SH SEE ALSO", *(f".BR {page}," for page in pages[:-1]), f".BR {pages[-1]}"])


def read_headers():
    """What fetchrig.h says of the whole, and the families by title."""
    families = {}
    for header in ("fetchrig.h", "fetchrig_openssl.h", "fetchrig_types.h"):
        front, *parts = DIVIDER.split((TOP / "include" / header).read_text())
        if header == "fetchrig.h":
            overview = comment_paragraphs(re.search(r"/\*\* @file.*?\*/", front, re.S)[0])
        for title, text in zip(parts[::2], parts[1::2]):
            family = families.setdefault(title, Family(title))
            for comment, declaration in ITEM.findall(text):
                family.add(header, comment, declaration)
    return overview, list(families.values())


def overview_page(overview, families, heading):
    lines = [heading("libfetchrig", 7), ".SH NAME", "libfetchrig \\- file transfer over HTTP, HTTPS, FTP and TFTP",
             ".SH SYNOPSIS", ".nf", "#include <fetchrig.h>", ".PP",
             "cc $(pkg\\-config \\-\\-cflags \\-\\-libs fetchrig)", ".fi",
             ".SH DESCRIPTION", "\n.PP\n".join(map(prose, overview[1:])), ".SH CALLS"]
    for family in families:
        lines += [".TP", f".BR {family.page} (3)", f"{family.title}: {', '.join(family.names()) or 'records'}"]
    return "\n".join(lines) + "\n" + references(REFERENCE[1:]) + "\n"


def main(target):
    version = re.search(r'FETCHRIG_VERSION "(.*)"', (TOP / "include/fetchrig_types.h").read_text())[1]
    date = re.search(r"^\.TH \S+ 1 (\S+)", (TOP / "docs/fetchrig.1").read_text(), re.M)[1]

    def heading(name, section):
        return f'.TH {name} {section} {date} "libfetchrig {version}" "libfetchrig"'

    overview, families = read_headers()
    for section in ("man3", "man7"):
        (target / section).mkdir(parents=True, exist_ok=True)
    for family in families:
        family.write(target / "man3", families, heading)
    (target / "man7/libfetchrig.7").write_text(overview_page(overview, families, heading))


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    main(pathlib.Path(sys.argv[1]))
