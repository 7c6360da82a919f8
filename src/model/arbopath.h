#pragma once

#include <QList>
#include <QMetaType>
#include <QString>

#include <type_traits>


// A node of the lattice named by the way to it from the root: up to six signed
// prime steps (+p moves up by the prime p, -p down). Text form: a "/" before
// each step, "/2/-3/3"; the root, the empty path, is "/".
//
// The steps are a zero-terminated array of signed bytes. Parsing and addLeaf()
// stop at six steps; only concatenation may fill all seven step bytes, and the
// terminator is then the eighth byte, which lies outside the seven steps and is
// always zero, so every path stays a well-formed zero-terminated array. Bytes
// after the terminator are always zero as well.
//
// The invalid path (a text that did not parse) has 127 as its first step.
//
// A plain 8-byte value: the command records of the sound engine copy it byte
// for byte. Everything here may be used from any thread and never allocates,
// except the text and list conversions and storeFromString() (which may log).
class ArboPath
{
public:
    // Steps in the array, including the one that only concatenation may fill.
    static constexpr int MAX_STEPS = 7;
    // Steps that parsing and addLeaf() allow.
    static constexpr int MAX_LEAF_STEPS = 6;
    static constexpr signed char INVALID_STEP = 127;

    // The empty path: the root.
    ArboPath() = default;
    // A path of the one step. A step of 0 gives the empty path.
    explicit ArboPath(signed char step);
    // Parses the text form, see storeFromString().
    explicit ArboPath(const QString& text);

    // Parses "/2/-3/3" (empty parts between slashes are skipped, so "2/-3" and
    // "//2//-3/" read the same; "/" and "" are the root). At most six steps
    // are read and any further part is ignored without a message. A part that
    // is not a decimal integer or not a valid prime step makes the whole path
    // invalid and logs "Invalid path: " with the text.
    void storeFromString(const QString& text);

    QString toString() const { return parseToString(); }
    QString parseToString() const;
    // The raw zero-terminated steps (always eight readable bytes).
    const signed char* toCharArray() const { return mSteps; }
    QList<int> toList() const;
    int length() const;
    bool isValid() const { return mSteps[0] != INVALID_STEP; }
    // Whether every step is a valid prime step (the invalid marker is not).
    // Paths that come from text or from the lattice file always are; a path
    // made from raw steps may not be.
    bool hasValidSteps() const;
    // Appends a step unless the path already holds six or more. A step of 0
    // changes nothing (it lands on the terminator).
    void addLeaf(signed char step);
    // Removes the last step. A seven-step path is left unchanged on purpose:
    // only concatenation makes one, and it is no path of the tree.
    void removeLeaf();

    // The steps of this path followed by those of `other`, up to all seven
    // step bytes (one more than addLeaf() allows, so that a step can still be
    // appended to a six-step path, as transposition plus path may need).
    ArboPath operator+(const ArboPath& other) const;

    // Same steps in the same order. At most six steps are compared and the
    // terminator is then required, so a seven-step path is unequal to every
    // path, itself included. That is deliberate: such a path names no node.
    bool operator==(const ArboPath& other) const;
    bool operator!=(const ArboPath& other) const { return !(*this == other); }

private:
    // MAX_STEPS step bytes and the terminator byte, which is always 0.
    signed char mSteps[MAX_STEPS + 1] = {};
};

// h = seed; h = h * 31 + step for each step (at most six), in 32-bit unsigned
// arithmetic with the step sign-extended.
uint qHash(const ArboPath& path, uint seed = 0);

// The command records copy paths byte for byte at a fixed offset.
static_assert(sizeof(ArboPath) == 8, "ArboPath must stay 8 bytes");
static_assert(std::is_standard_layout<ArboPath>::value, "ArboPath must be standard-layout");
static_assert(std::is_trivially_copyable<ArboPath>::value, "ArboPath must be trivially copyable");

Q_DECLARE_METATYPE(ArboPath)
