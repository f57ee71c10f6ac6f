#include "storage/CidWithCrc.h"

#include <cstdlib>

namespace {

constexpr int CidDigits = 32;
constexpr int CoveredBytes = 15;

unsigned char HexByte(const QString& text, int byteIndex)
{
    const QByteArray digits = text.mid(2 * byteIndex, 2).toLatin1();
    return static_cast<unsigned char>(std::strtoul(digits.constData(), nullptr, 16));
}

} // namespace

QString CidWithCrc(const QString& cid)
{
    QString result = cid;
    if (result.size() != CidDigits)
        return result;

    unsigned crc = 0;
    for (int i = 0; i < CoveredBytes; ++i) {
        const unsigned char byte = HexByte(result, i);
        for (int bit = 7; bit >= 0; --bit) {
            crc = (crc << 1) & 0xFF;
            const bool dataBit = (byte >> bit) & 1;
            const bool topBit = (crc & 0x80) != 0;
            if (topBit != dataBit)
                crc ^= 0x09;
        }
    }
    const unsigned final = ((crc << 1) & 0xFF) | 1;
    result.replace(CidDigits - 2, 2, QStringLiteral("%1").arg(final, 2, 16, QLatin1Char('0')));
    return result;
}
