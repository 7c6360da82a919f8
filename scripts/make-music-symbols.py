#!/usr/bin/python3
"""Writes the note cards' music symbols as SVG files, drawn from the glyphs of
LilyPond's Emmentaler engraving font.

    make-music-symbols.py FONT OUTPUT_FOLDER

Every file holds one black path ("fill:#000000", which the cards recolour)
in staff-space units: one unit of the viewBox is the distance between two
staff lines, and y = 0 is the glyph's own baseline (the line a clef sits on,
the pitch of a note head or accidental). The card only has to scale the
viewBox by its line spacing and put y = 0 on the right line; nothing about
the font has to be known in C++.

Run by the build (cmake/MusicSymbols.cmake); the output is never committed.
"""

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

# File name and glyph name, in the order the cards load them.
SYMBOLS = [
    ("trebleclef.svg", "clefs.G"),
    ("bassclef.svg", "clefs.F"),
    ("doubleflat.svg", "accidentals.flatflat"),
    ("flat.svg", "accidentals.flat"),
    ("sharp.svg", "accidentals.sharp"),
    ("doublesharp.svg", "accidentals.doublesharp"),
    ("note.svg", "noteheads.s2"),
]

# Emmentaler's em is the height of the five-line staff: four staff spaces.
STAFF_SPACES_PER_EM = 4.0
# A little air around each glyph so antialiased edges are not cut off.
PAD = 0.04


def number(value):
    text = "%.4f" % value
    text = text.rstrip("0").rstrip(".")
    return "0" if text in ("-0", "") else text


def symbol_svg(glyph_set, glyph_name, units_per_space):
    glyph = glyph_set[glyph_name]
    bounds_pen = BoundsPen(glyph_set)
    glyph.draw(bounds_pen)
    if bounds_pen.bounds is None:
        raise ValueError("glyph %s is empty" % glyph_name)
    x_min, y_min, x_max, y_max = (v / units_per_space for v in bounds_pen.bounds)

    path_pen = SVGPathPen(glyph_set, ntos=number)
    # Font y grows upwards, SVG y downwards.
    scale = 1.0 / units_per_space
    glyph.draw(TransformPen(path_pen, (scale, 0, 0, -scale, 0, 0)))

    left = x_min - PAD
    top = -y_max - PAD
    width = (x_max - x_min) + 2 * PAD
    height = (y_max - y_min) + 2 * PAD
    return (
        '<?xml version="1.0" encoding="UTF-8"?>\n'
        '<!-- %s from the Emmentaler font; units are staff spaces, y = 0 is the '
        "glyph's baseline. -->\n"
        '<svg xmlns="http://www.w3.org/2000/svg" version="1.1" viewBox="%s %s %s %s" '
        'width="%s" height="%s">\n'
        '  <path style="fill:#000000;fill-rule:nonzero" d="%s"/>\n'
        "</svg>\n"
        % (glyph_name, number(left), number(top), number(width), number(height),
           number(width * 10), number(height * 10), path_pen.getCommands())
    )


def main(argv):
    if len(argv) != 3:
        sys.exit(__doc__)
    font_path, out_dir = argv[1], argv[2]
    if not os.path.isfile(font_path):
        sys.exit("make-music-symbols.py: %s is missing; install the Debian package "
                 "lilypond-fonts" % font_path)
    font = TTFont(font_path)
    glyph_set = font.getGlyphSet()
    units_per_space = font["head"].unitsPerEm / STAFF_SPACES_PER_EM
    missing = [glyph for _, glyph in SYMBOLS if glyph not in glyph_set]
    if missing:
        sys.exit("make-music-symbols.py: %s has no glyph %s" % (font_path, ", ".join(missing)))

    os.makedirs(out_dir, exist_ok=True)
    for file_name, glyph_name in SYMBOLS:
        svg = symbol_svg(glyph_set, glyph_name, units_per_space)
        # Written beside and renamed, so that a build stopped half-way never
        # leaves a truncated symbol behind.
        target = os.path.join(out_dir, file_name)
        with open(target + ".tmp", "w", encoding="utf-8") as out:
            out.write(svg)
        os.replace(target + ".tmp", target)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
