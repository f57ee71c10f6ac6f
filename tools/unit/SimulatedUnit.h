#pragma once

#include "PrivateBus.h"
#include "SimulatorControl.h"

#include <QDBusMessage>
#include <QProcess>
#include <QTemporaryDir>

// The simulated UDisks2 service of one unit on a private bus, with the
// simulator's control interface for the test's hands.
class tSimulatedUnit : public tSimulatorControl
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

private:
    QString m_UnitFile;
    tPrivateBus m_Bus;
    QTemporaryDir m_MountBase;
    QProcess m_Simulator;
};

// A unit description of the simulator's example folder (UDISKS2_SIM_UNITS, set by CTest).
QString SimUnitFile(const QString& name);
