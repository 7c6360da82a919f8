#!/usr/bin/python3
"""Writes the note cards' music symbols as SVG files, drawn from the glyphs of
engraving fonts.

    make-music-symbols.py emmentaler FONT OUTPUT_FOLDER
    make-music-symbols.py smufl FONT METADATA OUTPUT_FOLDER NAME=CODEPOINT...

The first draws the staff symbols from LilyPond's Emmentaler. The second
draws the glyphs of a SMuFL font (Bravura) named by their SMuFL names, each
with its code point in hexadecimal, as NAME.svg; before anything is written it
checks that the font maps every code point to a glyph and that the font's
metadata.json knows every name with the very bounding box of that glyph, so
that a name can never stand for some other glyph or for none.

Every file holds one black path ("fill:#000000", which the cards recolour)
in staff-space units: one unit of the viewBox is the distance between two
staff lines, and y = 0 is the glyph's own baseline (the line a clef sits on,
the pitch of a note head or accidental). The card only has to scale the
viewBox by its line spacing and put y = 0 on the right line; nothing about
the font has to be known in C++.

Run by the build (cmake/MusicSymbols.cmake); the output is never committed.
"""

import json
import os
import sys

try:
    from fontTools.pens.boundsPen import BoundsPen
    from fontTools.pens.svgPathPen import SVGPathPen
    from fontTools.pens.transformPen import TransformPen
    from fontTools.ttLib import TTFont
except ImportError:
    sys.exit("make-music-symbols.py: fontTools is missing; install the Debian package "
             "python3-fonttools")

# File name and Emmentaler glyph name, in the order the cards load them.
EMMENTALER_SYMBOLS = [
    ("trebleclef.svg", "clefs.G"),
    ("bassclef.svg", "clefs.F"),
    ("doubleflat.svg", "accidentals.flatflat"),
    ("flat.svg", "accidentals.flat"),
    ("sharp.svg", "accidentals.sharp"),
    ("doublesharp.svg", "accidentals.doublesharp"),
    ("note.svg", "noteheads.s2"),
]

# Both fonts' em is the height of the five-line staff: four staff spaces.
STAFF_SPACES_PER_EM = 4.0
# A little air around each glyph so antialiased edges are not cut off.
PAD = 0.04
# How far, in staff spaces, a glyph's bounding box may lie from the one its
# name has in metadata.json (which rounds to thousandths of a space).
BBOX_TOLERANCE = 0.01


def number(value):
    text = "%.4f" % value
    text = text.rstrip("0").rstrip(".")
    return "0" if text in ("-0", "") else text


def glyph_bounds(glyph_set, glyph_name, units_per_space):
    bounds_pen = BoundsPen(glyph_set)
    glyph_set[glyph_name].draw(bounds_pen)
    if bounds_pen.bounds is None:
        raise ValueError("glyph %s is empty" % glyph_name)
    return tuple(v / units_per_space for v in bounds_pen.bounds)


def symbol_svg(glyph_set, glyph_name, units_per_space, label):
    x_min, y_min, x_max, y_max = glyph_bounds(glyph_set, glyph_name, units_per_space)

    path_pen = SVGPathPen(glyph_set, ntos=number)
    # Font y grows upwards, SVG y downwards.
    scale = 1.0 / units_per_space
    glyph_set[glyph_name].draw(TransformPen(path_pen, (scale, 0, 0, -scale, 0, 0)))

    left = x_min - PAD
    top = -y_max - PAD
    width = (x_max - x_min) + 2 * PAD
    height = (y_max - y_min) + 2 * PAD
    return (
        '<?xml version="1.0" encoding="UTF-8"?>\n'
        "<!-- %s; units are staff spaces, y = 0 is the glyph's baseline. -->\n"
        '<svg xmlns="http://www.w3.org/2000/svg" version="1.1" viewBox="%s %s %s %s" '
        'width="%s" height="%s">\n'
        '  <path style="fill:#000000;fill-rule:nonzero" d="%s"/>\n'
        "</svg>\n"
        % (label, number(left), number(top), number(width), number(height),
           number(width * 10), number(height * 10), path_pen.getCommands())
    )


def write_atomically(target, text):
    # Written beside and renamed, so that a build stopped half-way never
    # leaves a truncated symbol behind.
    with open(target + ".tmp", "w", encoding="utf-8") as out:
        out.write(text)
    os.replace(target + ".tmp", target)


def open_font(font_path, package):
    if not os.path.isfile(font_path):
        sys.exit("make-music-symbols.py: %s is missing; %s" % (font_path, package))
    font = TTFont(font_path)
    return font, font.getGlyphSet(), font["head"].unitsPerEm / STAFF_SPACES_PER_EM


def emmentaler(font_path, out_dir):
    _, glyph_set, units_per_space = open_font(
        font_path, "install the Debian package lilypond-fonts")
    missing = [glyph for _, glyph in EMMENTALER_SYMBOLS if glyph not in glyph_set]
    if missing:
        sys.exit("make-music-symbols.py: %s has no glyph %s" % (font_path, ", ".join(missing)))
    os.makedirs(out_dir, exist_ok=True)
    for file_name, glyph_name in EMMENTALER_SYMBOLS:
        svg = symbol_svg(glyph_set, glyph_name, units_per_space,
                         "%s from the Emmentaler font" % glyph_name)
        write_atomically(os.path.join(out_dir, file_name), svg)


def smufl(font_path, metadata_path, out_dir, requests):
    font, glyph_set, units_per_space = open_font(font_path, "the build fetches it")
    with open(metadata_path, encoding="utf-8") as f:
        boxes = json.load(f).get("glyphBBoxes", {})
    cmap = font.getBestCmap()
    glyphs = []
    problems = []
    for request in requests:
        name, _, code = request.partition("=")
        code_point = int(code, 16)
        glyph_name = cmap.get(code_point)
        if glyph_name is None:
            problems.append("%s: no glyph at U+%04X" % (name, code_point))
            continue
        box = boxes.get(name)
        if box is None:
            problems.append("%s: not a name in %s" % (name, metadata_path))
            continue
        expected = (box["bBoxSW"][0], box["bBoxSW"][1], box["bBoxNE"][0], box["bBoxNE"][1])
        actual = glyph_bounds(glyph_set, glyph_name, units_per_space)
        if max(abs(a - e) for a, e in zip(actual, expected)) > BBOX_TOLERANCE:
            problems.append("%s: the glyph at U+%04X is not the one of that name (bounding "
                            "box %s, metadata.json says %s)" % (name, code_point,
                                                                 actual, expected))
            continue
        glyphs.append((name, code_point, glyph_name))
    if problems:
        sys.exit("make-music-symbols.py: %s lacks glyphs the notation names:\n  %s"
                 % (font_path, "\n  ".join(problems)))
    os.makedirs(out_dir, exist_ok=True)
    family = font["name"].getDebugName(1) or "SMuFL"
    for name, code_point, glyph_name in glyphs:
        svg = symbol_svg(glyph_set, glyph_name, units_per_space,
                         "%s (U+%04X) from the %s font" % (name, code_point, family))
        write_atomically(os.path.join(out_dir, name + ".svg"), svg)


def main(argv):
    if len(argv) == 4 and argv[1] == "emmentaler":
        emmentaler(argv[2], argv[3])
    elif len(argv) >= 6 and argv[1] == "smufl":
        smufl(argv[2], argv[3], argv[4], argv[5:])
    else:
        sys.exit(__doc__)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
