#pragma once

#include <QDBusConnection>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

// A program of the simulated unit in tools/unit, e.g. "larkd-unit.sh".
QString UnitTool(const QString& name);

// A private bus of the test's own (tools/unit/private-bus.sh), so that
// parallel tests never share one and nothing needs the machine's system bus.
class tPrivateBus
{
public:
    tPrivateBus() = default;
    ~tPrivateBus();
    tPrivateBus(const tPrivateBus&) = delete;
    tPrivateBus& operator=(const tPrivateBus&) = delete;

    // With exportAsSystemBus, sets DBUS_SYSTEM_BUS_ADDRESS for this process and
    // its children. QDBusConnection::systemBus() keeps the first address it
    // saw, so start the bus before the code under test touches the system bus.
    bool Start(bool exportAsSystemBus = true, QString* error = nullptr);
    void Stop();

    QString Address() const { return m_Address; }
    // A connection of the test's own to this bus, apart from systemBus().
    QDBusConnection Connection() const;

private:
    QTemporaryDir m_Dir;
    QProcess m_Daemon;
    QString m_Address;
    QString m_ConnectionName;
};
