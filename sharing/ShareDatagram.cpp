#include "sharing/ShareDatagram.h"

#include "system/JsonKeys.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QtEndian>

#include <cstring>

namespace
{
const QString cContentIdKey = QStringLiteral("ContentID");
const QString cSerialNumberKey = QStringLiteral("SerialNumber");
const QString cCodeNameKey = QStringLiteral("CodeName");

template <typename T>
void Put(QByteArray& buffer, int offset, T value)
{
    std::memcpy(buffer.data() + offset, &value, sizeof value);
}

template <typename T>
T Get(const char* data, int offset)
{
    T value;
    std::memcpy(&value, data + offset, sizeof value);
    return value;
}

// The text from `offset` up to its first NUL or the end of the datagram.
QString CString(const char* data, qint64 size, qint64 offset)
{
    if (offset >= size)
        return QString();
    const char* start = data + offset;
    const void* nul = std::memchr(start, '\0', static_cast<size_t>(size - offset));
    const qint64 length = nul ? static_cast<const char*>(nul) - start : size - offset;
    return QString::fromUtf8(start, static_cast<int>(length));
}
} // namespace

tEncodedShareDatagram EncodeShareDatagram(quint16 type, const tNfsData& share)
{
    using namespace ShareDatagram;

    QJsonObject json;
    json.insert(cContentIdKey, share.contentId);
    json.insert(cSerialNumberKey, share.serialNumber);
    if (!share.codeName.isEmpty())
        json.insert(cCodeNameKey, share.codeName);
    const QByteArray jsonText = QJsonDocument(json).toJson(QJsonDocument::Indented);

    tEncodedShareDatagram encoded;
    encoded.jsonLength = jsonText.size();

    const QString* strings[] = {&share.source, &share.name, &share.detail};
    qint64 total = cHeaderSize + jsonText.size();
    for (const QString* text : strings)
        total += text->size() + 1;
    if (total > cBufferSize)
        return encoded;

    QByteArray buffer(cBufferSize, '\0');
    Put<quint32>(buffer, 0, cMagic);
    Put<quint16>(buffer, 4, cVersion);
    Put<quint16>(buffer, 6, type);
    Put<quint16>(buffer, 8, cIntervalMs);
    Put<quint16>(buffer, 10, static_cast<quint16>(share.shareType));
    Put<quint16>(buffer, 12, share.readOnly ? 1 : 0);
    int offset = cHeaderSize;
    for (int i = 0; i < 3; ++i) {
        const int length = strings[i]->size() + 1;
        Put<quint16>(buffer, 14 + 2 * i, static_cast<quint16>(length));
        // A QByteArray keeps a NUL after its data, and UTF-8 is never shorter
        // than UTF-16 in code units, so `length` bytes are always there.
        const QByteArray utf8 = strings[i]->toUtf8();
        std::memcpy(buffer.data() + offset, utf8.constData(), static_cast<size_t>(length));
        offset += length;
    }
    std::memcpy(buffer.data() + offset, jsonText.constData(), static_cast<size_t>(jsonText.size()));
    buffer.truncate(static_cast<int>(total));

    encoded.datagram = buffer;
    encoded.fits = true;
    return encoded;
}

bool DecodeShareDatagram(const char* data, qint64 size, const QString& senderAddress,
                         tDecodedShareMessage* message)
{
    using namespace ShareDatagram;

    if (size < cHeaderSize || Get<quint32>(data, 0) != cMagic)
        return false;

    tDecodedShareMessage decoded;
    decoded.type = Get<quint16>(data, 6);
    decoded.share.shareType = Get<quint16>(data, 10);
    decoded.share.readOnly = Get<quint16>(data, 12) != 0;

    QString strings[3];
    qint64 offset = cHeaderSize;
    for (int i = 0; i < 3; ++i) {
        strings[i] = CString(data, size, offset);
        offset += Get<quint16>(data, 14 + 2 * i);
    }
    decoded.share.source = senderAddress + QLatin1Char(':') + strings[0];
    decoded.share.name = strings[1];
    decoded.share.detail = strings[2];

    // The writer ends the JSON with a newline; the reader leaves it out.
    if (offset < size) {
        decoded.jsonPresent = true;
        const QByteArray text = QByteArray::fromRawData(data + offset, static_cast<int>(size - offset - 1));
        // Text that repeats a key is taken as invalid, unparsed: see RepeatsAKey.
        const QJsonDocument document = RepeatsAKey(text) ? QJsonDocument() : QJsonDocument::fromJson(text);
        if (!document.isNull()) {
            decoded.jsonValid = true;
            const QJsonObject json = document.object();
            decoded.share.contentId = json.value(cContentIdKey).toString();
            decoded.share.serialNumber = json.value(cSerialNumberKey).toString();
            decoded.share.codeName = json.value(cCodeNameKey).toString();
        }
    }

    *message = decoded;
    return true;
}
