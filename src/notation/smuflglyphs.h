#pragma once

#include <QString>
#include <QVector>

// The glyphs of the Standard Music Font Layout (SMuFL) that the notation
// writes, by their SMuFL names, each with its code point in the font.
//
// This is the one list of them: code elsewhere names glyphs by name only, and
// the build draws each glyph of this list from the music font (Bravura) into
// the resource folder as "smufl/<name>.svg", after checking that the font has
// the glyph under that name and at that code point (scripts/
// make-music-symbols.py reads the table in smuflglyphs.cpp between its two
// marker lines). A name outside the list therefore has no picture.
//
// Constant tables, made once on first use: any thread may read them.
class SmuflGlyphs
{
public:
    struct Glyph
    {
        const char* name;
        char32_t codePoint;
    };

    static const QVector<Glyph>& all();
    // Whether `name` is one of the glyphs above.
    static bool contains(const QString& name);
    // The folder of the resource folder that holds the drawn glyphs, and the
    // file of one glyph in it ("smufl/accidentalSharp.svg").
    static QString fileName(const QString& name);
};
