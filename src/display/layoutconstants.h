#pragma once

#include <vector>

// The sizes, angles and colour factors of the lattice drawing.
//
// Plain mutable ints on purpose: the tweak dialog edits them by name while the
// program runs, and the display is then rebuilt from the new values. Lengths
// are scene units, angles degrees counter-clockwise from the positive x axis
// (y up on screen), factors percentages as QColor::lighter()/darker() take
// them.
//
// The list below is the one place that names them, with their defaults, in
// the order the tweak dialog shows them.
//
// GUI thread only.
#define ARBO_LAYOUT_CONSTANTS(X)                                                                   \
    X(ANGLE_2_PLUS, 135)             /* direction of a +2 child; -2 lies opposite */               \
    X(ANGLE_3_PLUS, 45)              /* direction of a +3 child; -3 lies opposite */               \
    X(ANGLE_FRONT_OFFSET, 12)        /* tweakable, drives no layout */                             \
    X(ANGLE_FRONT_ROTATE_OFFSET, 45) /* tweakable, drives no layout */                             \
    X(STRUT_2_LENGTH, 113)           /* ball to its +-2 child */                                   \
    X(STRUT_3_LENGTH, 66)            /* ball to its +-3 child */                                   \
    X(STRUT_WIDTH, 4)                /* pen of a strut along 2 or 3 */                             \
    X(LINK_WIDTH, 2)                 /* pen of a link strut */                                     \
    X(LEAVES_PLUS_OFFSET_X, 0)       /* flowers: offset of the positive cluster */                 \
    X(LEAVES_PLUS_OFFSET_Y, -35)                                                                   \
    X(GRAPE_LEAVES_WIDTH, 32)  /* grapes: horizontal spread of a cluster */                        \
    X(GRAPE_LEAVES_HEIGHT, 80) /* grapes: vertical length of a cluster */                          \
    X(BALL_DIAMETER, 28)                                                                           \
    X(LEAF_DIAMETER, 10)                                                                           \
    X(LEAVES_RADIUS, 14)            /* flowers: radius of the ring of leaves */                    \
    X(LEAVES_START_ANGLE, 50)       /* flowers: angle of the first ring position */                \
    X(BALL_DIM_FACTOR, 115)         /* darker() of an idle ball and of every strut */              \
    X(BALL_BRIGHTEN_FACTOR, 130)    /* lighter() of a playing ball's fill */                       \
    X(OUTLINE_BRIGHTEN_FACTOR, 145) /* lighter() of a playing ball's outline */                    \
    X(BALL_GLOW_SIZE_FACTOR, 200)   /* glow diameter as a share of the ball's */                   \
    X(GLOW_ALPHA_START, 180)        /* glow alpha at its centre */                                 \
    X(MARK_SIZE_FACTOR, 150)        /* ring of a marked ball, as a share of the ball's diameter */ \
    X(PRIME_DISABLED_DIM_FACTOR, 300)

#define ARBO_DECLARE_LAYOUT_CONSTANT(name, initial) extern int name;
ARBO_LAYOUT_CONSTANTS(ARBO_DECLARE_LAYOUT_CONSTANT)
#undef ARBO_DECLARE_LAYOUT_CONSTANT

namespace LayoutConstants {

struct Entry
{
    const char* name;
    int* value;
    int initial;
};

// Every constant, in the order of the list above.
const std::vector<Entry>& all();

// Puts every constant back to its default.
void resetToDefaults();

} // namespace LayoutConstants
