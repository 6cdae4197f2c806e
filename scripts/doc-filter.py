#!/usr/bin/env python3
"""Doxygen input filter for BaseLib's public headers.

The headers are plain C99 with ordinary comments, written for a reader of
the header. This filter shows them to Doxygen as documentation, without
changing their style:
  - the first comment of a header documents the file (@file);
  - a comment block right above a declaration documents it, and also the
    further VEK_API declarations of the same paragraph (no blank line in
    between), which is how the headers document a group of calls at once;
  - a comment behind a declaration's ";" documents that declaration, and
    ends the group: the lines after it are documented one by one.
Section titles ("/* ---- threads ---- */") document nothing.
"""
import re
import sys

API = re.compile(r'^\s*VEK_API\b')
DECL_START = re.compile(r'^\s*(VEK_API\b|typedef\b|struct\b|enum\b|union\b|#\s*define\b)')
TRAILING = re.compile(r'^(.*;)\s*/\*(?!\*)(.*)\*/\s*$')
TITLE = re.compile(r'^\s*/\*\s*-{2,}.*-{2,}\s*\*/\s*$')


def main(path):
    with open(path, encoding='utf-8', errors='replace') as f:
        lines = f.read().split('\n')
    out = []
    file_done = False
    block = None      # the lines of the comment block of this paragraph
    block_at = -1     # its index in out, while it still stands unconverted
    in_decl = False   # inside a declaration that spans lines
    i = 0
    while i < len(lines):
        line = lines[i]
        stripped = line.strip()
        if stripped.startswith('/*') and not stripped.startswith('/**') and not in_decl:
            # a whole-line comment block
            j = i
            while '*/' not in lines[j] and j + 1 < len(lines):
                j += 1
            text = lines[i:j + 1]
            if not file_done:
                text = list(text)
                text[0] = text[0].replace('/*', '/** @file', 1)
                out.extend(text)
                file_done = True
                block = None
            elif TITLE.match(line) and i == j:
                out.extend(text)
                block = None
            else:
                block_at = len(out)
                out.extend(text)
                block = text
            i = j + 1
            continue
        if not stripped:
            block = None
            block_at = -1
            in_decl = False
            out.append(line)
            i += 1
            continue
        own = TRAILING.match(line) is not None and ';' in line
        if not in_decl and DECL_START.match(line) and block is not None and not own:
            if block_at >= 0:
                out[block_at] = out[block_at].replace('/*', '/**', 1)
                block_at = -1
            elif API.match(line):
                out.extend([block[0].replace('/*', '/**', 1)] + block[1:])
        m = TRAILING.match(line)
        if m and (API.match(line) or in_decl or DECL_START.match(line)):
            line = m.group(1) + ' /**<' + m.group(2) + '*/'
            # lines documented one by one: the block above was for its own
            # declaration only
            block = None
            block_at = -1
        if API.match(line) or in_decl:
            in_decl = ';' not in line
        elif not DECL_START.match(line):
            # other code (#include, #ifdef, a struct's body) ends a group
            if not in_decl and not stripped.startswith(('}', '{')) and block_at >= 0:
                block_at = -1
        out.append(line)
        i += 1
    sys.stdout.write('\n'.join(out))


if __name__ == '__main__':
    main(sys.argv[1])
