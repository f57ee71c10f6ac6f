#pragma once

#include "AppConnection.h"

#include <QTest>

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

// The arrivals of at least count volumes and whatever else comes within
// 300 ms, so that a volume told twice shows.
inline QList<QJsonObject> Settled(tAppConnection& app, int count = 0)
{
    QList<QJsonObject> arrivals = app.TakeArrivals(count);
    QTest::qWait(300);
    return arrivals + app.TakeArrivals(0);
}

// Takes one arrival and compares the values of the expected keys; on a
// mismatch the arrival is printed.
inline bool Arrived(tAppConnection& app, const QJsonObject& expected, int timeoutMs = 10000)
{
    const QJsonObject arrival = app.TakeArrivals(1, timeoutMs).value(0);
    for (auto it = expected.begin(); it != expected.end(); ++it) {
        if (arrival.value(it.key()) != it.value()) {
            qWarning("%s", QJsonDocument(arrival).toJson().constData());
            return false;
        }
    }
    return true;
}
