#pragma once

#include <QByteArray>
#include <QString>

// One request of the display application, decoded from its JSON envelope
// {"message": {"type": ..., "content": ...}}.
struct tAppRequest
{
    enum class Kind
    {
        Malformed,         // not JSON: parseError says why
        EnquireDeviceList, // "enquerydevicelist"
        ChartSharing,      // "chartsharing": interfaceName when namesInterface
        DataUnmount,       // "datasource" with "dataunmount": path and keepUnmounted
        Ignored,           // "datasource" without a usable path
        Unknown,           // any other type
    };

    Kind kind = Kind::Unknown;
    QString parseError;
    bool namesInterface = false;
    QString interfaceName;
    QString path;
    bool keepUnmounted = false;
};

tAppRequest ParseAppRequest(const QByteArray& message);
