#include "notation/smuflglyphs.h"

#include <QSet>

namespace {

// Code points from the SMuFL ranges "Standard accidentals (12-EDO)"
// (U+E260), "Extended Helmholtz-Ellis accidentals (just intonation)"
// (U+E2C0-U+E2FF) and its supplement (U+EE50). The build script parses the
// lines between the markers, one glyph per line, exactly in this form.
const SmuflGlyphs::Glyph GLYPHS[] = {
    // smufl-glyphs-begin
    {"accidentalFlat", 0xE260},
    {"accidentalNatural", 0xE261},
    {"accidentalSharp", 0xE262},
    {"accidentalDoubleSharp", 0xE263},
    {"accidentalDoubleFlat", 0xE264},
    {"accidentalDoubleFlatOneArrowDown", 0xE2C0},
    {"accidentalFlatOneArrowDown", 0xE2C1},
    {"accidentalNaturalOneArrowDown", 0xE2C2},
    {"accidentalSharpOneArrowDown", 0xE2C3},
    {"accidentalDoubleSharpOneArrowDown", 0xE2C4},
    {"accidentalDoubleFlatOneArrowUp", 0xE2C5},
    {"accidentalFlatOneArrowUp", 0xE2C6},
    {"accidentalNaturalOneArrowUp", 0xE2C7},
    {"accidentalSharpOneArrowUp", 0xE2C8},
    {"accidentalDoubleSharpOneArrowUp", 0xE2C9},
    {"accidentalDoubleFlatTwoArrowsDown", 0xE2CA},
    {"accidentalFlatTwoArrowsDown", 0xE2CB},
    {"accidentalNaturalTwoArrowsDown", 0xE2CC},
    {"accidentalSharpTwoArrowsDown", 0xE2CD},
    {"accidentalDoubleSharpTwoArrowsDown", 0xE2CE},
    {"accidentalDoubleFlatTwoArrowsUp", 0xE2CF},
    {"accidentalFlatTwoArrowsUp", 0xE2D0},
    {"accidentalNaturalTwoArrowsUp", 0xE2D1},
    {"accidentalSharpTwoArrowsUp", 0xE2D2},
    {"accidentalDoubleSharpTwoArrowsUp", 0xE2D3},
    {"accidentalDoubleFlatThreeArrowsDown", 0xE2D4},
    {"accidentalFlatThreeArrowsDown", 0xE2D5},
    {"accidentalNaturalThreeArrowsDown", 0xE2D6},
    {"accidentalSharpThreeArrowsDown", 0xE2D7},
    {"accidentalDoubleSharpThreeArrowsDown", 0xE2D8},
    {"accidentalDoubleFlatThreeArrowsUp", 0xE2D9},
    {"accidentalFlatThreeArrowsUp", 0xE2DA},
    {"accidentalNaturalThreeArrowsUp", 0xE2DB},
    {"accidentalSharpThreeArrowsUp", 0xE2DC},
    {"accidentalDoubleSharpThreeArrowsUp", 0xE2DD},
    {"accidentalLowerOneSeptimalComma", 0xE2DE},
    {"accidentalRaiseOneSeptimalComma", 0xE2DF},
    {"accidentalLowerTwoSeptimalCommas", 0xE2E0},
    {"accidentalRaiseTwoSeptimalCommas", 0xE2E1},
    {"accidentalLowerOneUndecimalQuartertone", 0xE2E2},
    {"accidentalRaiseOneUndecimalQuartertone", 0xE2E3},
    {"accidentalLowerOneTridecimalQuartertone", 0xE2E4},
    {"accidentalRaiseOneTridecimalQuartertone", 0xE2E5},
    {"accidentalCombiningLower17Schisma", 0xE2E6},
    {"accidentalCombiningRaise17Schisma", 0xE2E7},
    {"accidentalCombiningLower19Schisma", 0xE2E8},
    {"accidentalCombiningRaise19Schisma", 0xE2E9},
    {"accidentalCombiningLower23Limit29LimitComma", 0xE2EA},
    {"accidentalCombiningRaise23Limit29LimitComma", 0xE2EB},
    {"accidentalCombiningLower31Schisma", 0xE2EC},
    {"accidentalCombiningRaise31Schisma", 0xE2ED},
    {"accidentalCombiningLower29LimitComma", 0xEE50},
    {"accidentalCombiningRaise29LimitComma", 0xEE51},
    // smufl-glyphs-end
};

} // namespace

const QVector<SmuflGlyphs::Glyph>& SmuflGlyphs::all()
{
    static const QVector<Glyph> LIST(std::begin(GLYPHS), std::end(GLYPHS));
    return LIST;
}

bool SmuflGlyphs::contains(const QString& name)
{
    static const QSet<QString> NAMES = [] {
        QSet<QString> names;
        for (const Glyph& glyph : GLYPHS) {
            names.insert(QString::fromLatin1(glyph.name));
        }
        return names;
    }();
    return NAMES.contains(name);
}

QString SmuflGlyphs::fileName(const QString& name)
{
    return QStringLiteral("smufl/%1.svg").arg(name);
}
