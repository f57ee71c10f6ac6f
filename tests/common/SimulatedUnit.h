#pragma once

#include "PrivateBus.h"

#include <QDBusMessage>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

// The simulated UDisks2 service of one unit on a private bus, with the
// simulator's control interface for the test's hands: insert and pull media,
// unmount behind the client's back, make a mount fail, read what happened.
class tSimulatedUnit
{
public:
    // unitFile: a unit description, e.g. SimUnitFile("two-slots-stick-reader.json").
    explicit tSimulatedUnit(const QString& unitFile);
    ~tSimulatedUnit();

    // Starts the bus (exported as DBUS_SYSTEM_BUS_ADDRESS when asked) and the
    // simulator, and waits until it serves.
    bool Start(bool exportAsSystemBus = true, QString* error = nullptr);
    void Stop();

    tPrivateBus& Bus() { return m_Bus; }
    // Mount directories go here rather than to /run/media.
    QString MountBase() const { return m_MountBase.path(); }

    // Each returns false with the simulator's message on refusal.
    bool Insert(const QString& slot, const QString& medium, QString* error = nullptr);
    bool Remove(const QString& slot, QString* error = nullptr);
    bool Unmount(const QString& node, QString* error = nullptr);
    bool FailNextMount(const QString& message = QString());
    // Mount or Unmount calls are answered only that much later, as by a slow
    // card (0: at once again); each is recorded as "Mount-held NODE..." on arrival.
    bool Hold(const QString& method, int milliseconds, QString* error = nullptr);
    // The simulator's record: "Mount NODE PATH OPTIONS...", "Unmount NODE", ...
    QStringList Calls();
    // The same record, each line after its CLOCK_MONOTONIC milliseconds.
    QStringList Timeline();

private:
    QDBusMessage Control(const QString& method, const QVariantList& args);
    static bool Succeeded(const QDBusMessage& reply, QString* error);

    QString m_UnitFile;
    tPrivateBus m_Bus;
    QTemporaryDir m_MountBase;
    QProcess m_Simulator;
};

// A unit description of the simulator's example folder (UDISKS2_SIM_UNITS, set by CTest).
QString SimUnitFile(const QString& name);
