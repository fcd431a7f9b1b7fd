#!/usr/bin/python3
"""What Doxygen reads in the place of a file: filter.py FILE. Lines keep their numbers.

Headers: the comment at the head becomes that of the file; one that stands above several declarations is
given to each of them. Pages: headings get the names that links call them by, links to what is no page
become its name.
"""

import pathlib
import re
import sys


def header(text):
    head, body = text.split("\n\n", 1)
    head = re.sub(r"^(#pragma once\n)?//", r"\1/// @file\n///", head)
    head = re.sub(r"^//(?!/)(  )?", lambda match: "///" + ("     " if match[1] else ""), head, flags=re.M)
    lines, out, at = body.split("\n"), [], 0
    while at < len(lines):
        out.append(lines[at])
        at += 1
        if not re.match(r" *///", out[-1]) or (at < len(lines) and re.match(r" *///", lines[at])):
            continue
        group = []
        while at < len(lines) and not re.match(r"\s*(///|$|private:|protected:|public:|};|} *//|.*= delete;)", lines[at]):
            group.append(lines[at])
            at += 1
        several = len([line for line in group if re.match(r" {0,2}(?! )(?!}).*\S", line) and
                       re.search(r"[;{]$|}$", line)]) > 1 and not any("///<" in line for line in group)
        if several and not re.match(r"(enum|class|struct)\b", group[0].strip()):
            out[-1] += "\n/// @{"
            group[-1] += "\n/// @}"
        out += group
    return head + "\n\n" + "\n".join(out)


def slug(heading):
    return re.sub(r"[^\w -]", "", heading.lower()).strip().replace(" ", "-")


def page(path, text):
    name = path.stem.lower()
    fenced = False

    def link(match):
        words, target, anchor = match.groups()
        if "://" in target:
            return match[0]
        if not target.endswith(".md") or "examples/" in target:
            return f"{words} (`{target.replace('../', '')}`)" if target not in words else f"`{words}`"
        file = pathlib.PurePath(target or path)
        return f"[{words}](@ref {file.stem.lower()}{'-' + anchor[1:] if anchor else ''})"

    out = []
    for line in text.split("\n"):
        fenced ^= line.startswith("```")
        if not fenced:
            if line.startswith("<!-- "):
                line = ""
            if match := re.match(r"(#+) (.*)", line):
                anchor = name if match[1] == "#" else f"{name}-{slug(match[2])}"
                line = f"{line} {{#{anchor}}}"
            line = re.sub(r"<a [^>]*>(<img .*?>)</a>", r"\1", line).replace('src="docs/', 'src="')
            line = re.sub(r"\[([^][]*)\]\(([^)#]*)(#[^)]*)?\)", link, line)
        out.append(line.replace("`::", "`\u200b::"))  # else it were a name of C++
    return "\n".join(out)


def main():
    path = pathlib.Path(sys.argv[1])
    text = path.read_text()
    sys.stdout.write(header(text) if path.suffix == ".h" else page(path, text))


if __name__ == "__main__":
    main()
