#pragma once

#include <QByteArray>
#include <QString>

// UDisks2 sends paths ("Device", "MountPoints") as NUL-terminated byte
// arrays; this is the one place that turns them into text.
inline QString TextUpToNul(const QByteArray& bytes)
{
    const int nul = bytes.indexOf('\0');
    return QString::fromUtf8(nul < 0 ? bytes : bytes.left(nul));
}
