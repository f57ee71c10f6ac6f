#pragma once

#include "sharing/NfsData.h"

#include <QByteArray>
#include <QString>
#include <QtGlobal>

// The announcement datagram both units agree on: a 20-byte header in native
// byte order, three length-prefixed strings, then an indented JSON object.
namespace ShareDatagram
{
constexpr quint32 cMagic = 0x12345678;
constexpr quint16 cVersion = 1;
constexpr quint16 cIntervalMs = 1000;
constexpr int cHeaderSize = 20;
constexpr int cBufferSize = 1500;
constexpr quint16 cPort = 10000;
inline const char* GroupAddress() { return "224.1.1.1"; }

enum MessageType : quint16 {
    cSharePresent = 1,
    cShareWithdrawn = 2,
};
} // namespace ShareDatagram

struct tEncodedShareDatagram
{
    QByteArray datagram; // empty when the message does not fit
    int jsonLength = 0;
    bool fits = false;
};

// Builds the datagram for one share. A string's length field is its UTF-16
// length + 1 and exactly that many bytes of its UTF-8 form are copied, so
// non-ASCII text is cut short: the peer reads it the same way.
tEncodedShareDatagram EncodeShareDatagram(quint16 type, const tNfsData& share);

struct tDecodedShareMessage
{
    quint16 type = 0;
    tNfsData share;
    bool jsonPresent = false; // the JSON start lay inside the datagram
    bool jsonValid = false;   // ... and parsed to a document
};

// Reads a datagram of `size` bytes. Returns false when it is not a share
// message (short or wrong magic). Never reads outside [data, data + size).
bool DecodeShareDatagram(const char* data, qint64 size, const QString& senderAddress,
                         tDecodedShareMessage* message);
