#include "input/wanddatagram.h"

static_assert(WandDatagram::TAG_OFFSET +
                      (WandDatagram::MAX_TAG_LENGTH - 1) * WandDatagram::TAG_STRIDE <
                  WandDatagram::SIZE,
              "the last tag character lies inside the datagram");

WandDatagram::WandDatagram(std::uint8_t wand, const QByteArray& tag) : mWand(wand)
{
    while (mTagLength < MAX_TAG_LENGTH && mTagLength < tag.size() && tag.at(mTagLength) != '\0') {
        mTag[mTagLength] = tag.at(mTagLength);
        ++mTagLength;
    }
}

bool WandDatagram::parse(const char* data, std::int64_t size, WandDatagram& out)
{
    if (size != SIZE || !data) {
        return false;
    }
    out.mWand = static_cast<std::uint8_t>(data[WAND_OFFSET]);
    int length = 0;
    while (length < MAX_TAG_LENGTH) {
        const char c = data[TAG_OFFSET + TAG_STRIDE * length];
        if (c == '\0') {
            break;
        }
        out.mTag[length++] = c;
    }
    out.mTagLength = length;
    return true;
}

QByteArray WandDatagram::toBytes() const
{
    QByteArray bytes(SIZE, '\0');
    bytes[WAND_OFFSET] = static_cast<char>(mWand);
    for (int i = 0; i < mTagLength; ++i) {
        bytes[TAG_OFFSET + TAG_STRIDE * i] = mTag[i];
    }
    return bytes;
}

QString WandDatagram::tagForLog() const
{
    static const char HEX[] = "0123456789ABCDEF";
    QString text;
    text.reserve(mTagLength * 4);
    for (int i = 0; i < mTagLength; ++i) {
        const auto byte = static_cast<unsigned char>(mTag[i]);
        if (byte >= 0x20 && byte < 0x7f) {
            text += QLatin1Char(static_cast<char>(byte));
        } else {
            text += QLatin1String("\\x");
            text += QLatin1Char(HEX[byte >> 4]);
            text += QLatin1Char(HEX[byte & 0xf]);
        }
    }
    return text;
}
