#pragma once

#include "LarkdUnit.h"

// How most stories begin: the unit up and the application connected, told of
// the card present at start. On failure the unit's log is printed.
inline bool Boot(tLarkdUnit& unit, tAppConnection& app)
{
    QString error;
    if (unit.Start(&error) && app.Connect(unit.Port())
        && Reported(app.TakeArrivals(1)) == QStringList{QStringLiteral("+/run/media/CHARTS")})
        return true;
    qWarning("%s\n%s", qPrintable(error), unit.Log().constData());
    return false;
}
