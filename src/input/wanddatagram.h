#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>

// The datagram a wand sends over UDP when it has read an RFID tag, and the
// one place that knows its layout: the listener parses with it, the wand
// simulator (arbo-wand) builds with it.
//
// A datagram is exactly 72 bytes. The wand's firmware sends a sequence of
// big-endian 32-bit integers; we need only the low bytes of some of them:
//
//   offset 23          the wand's number (low byte of the integer at 20)
//   offset 27 + 4 * i  character i of the tag, i = 0..9 (low byte of the
//                      integer at 24 + 4 * i)
//
// Every other byte is ignored when parsing and written as zero when building.
// The tag ends at its first zero byte, so it has at most ten characters.
//
// A plain value; any thread. Parsing never allocates.
class WandDatagram
{
public:
    static constexpr int SIZE = 72;
    static constexpr int WAND_OFFSET = 23;
    static constexpr int TAG_OFFSET = 27;
    static constexpr int TAG_STRIDE = 4;
    static constexpr int MAX_TAG_LENGTH = 10;

    // Wand 0, empty tag.
    WandDatagram() = default;
    // A datagram for `tag` from wand `wand`. Only the bytes up to the first
    // zero byte and at most MAX_TAG_LENGTH of them are kept (a longer tag
    // cannot travel in the datagram).
    WandDatagram(std::uint8_t wand, const QByteArray& tag);

    // Reads the fields of `size` bytes at `data`. False, leaving `out`
    // untouched, unless size is exactly SIZE. Any 72 bytes parse: the wand and
    // the tag are whatever bytes stand at their places.
    static bool parse(const char* data, std::int64_t size, WandDatagram& out);

    // The 72 bytes of the datagram.
    QByteArray toBytes() const;

    std::uint8_t wand() const { return mWand; }
    // The tag's bytes, never a zero byte among them.
    QByteArray tag() const { return QByteArray(mTag, mTagLength); }
    // The tag as text for the RFID map: each byte one character. Tags are
    // ASCII; a byte above 127 is read as its Latin-1 character, so nothing is
    // lost and two different tags never read the same.
    QString tagText() const { return QString::fromLatin1(mTag, mTagLength); }
    // The tag for a log line. The bytes come from the network: anything but
    // printable ASCII is written as \xNN, so that a datagram cannot put line
    // breaks or terminal controls into the log. Equal to tagText() for the
    // tags real wands send.
    QString tagForLog() const;

private:
    std::uint8_t mWand = 0;
    int mTagLength = 0;
    char mTag[MAX_TAG_LENGTH] = {};
};
