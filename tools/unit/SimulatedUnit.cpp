#include "SimulatedUnit.h"

#include "UnitProcesses.h"
#include "SimNames.h"

#include <QDBusConnectionInterface>
#include <QDir>
#include <QElapsedTimer>
#include <QThread>

namespace
{
// The simulator binary, set by CTest.
QString SimBinary()
{
    return qEnvironmentVariable("UDISKS2_SIM_BINARY");
}
} // namespace

QString SimUnitFile(const QString& name)
{
    return QDir(qEnvironmentVariable("UDISKS2_SIM_UNITS")).filePath(name);
}

tSimulatedUnit::tSimulatedUnit(const QString& unitFile)
    : m_UnitFile(unitFile)
{
}

tSimulatedUnit::~tSimulatedUnit()
{
    Stop();
}

bool tSimulatedUnit::Start(bool exportAsSystemBus, QString* error)
{
    QString ignored;
    QString& message = error ? *error : ignored;
    if (SimBinary().isEmpty()) {
        message = QStringLiteral("UDISKS2_SIM_BINARY is not set");
        return false;
    }
    if (!m_Bus.Start(exportAsSystemBus, &message))
        return false;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), m_Bus.Address());
    m_Simulator.setProcessEnvironment(environment);
    m_Simulator.setProcessChannelMode(QProcess::ForwardedChannels);
    // setpriv ties the simulator to this process: it goes even when a test crashes.
    m_Simulator.start(QStringLiteral("setpriv"), {QStringLiteral("--pdeathsig"), QStringLiteral("TERM"), QStringLiteral("--"), SimBinary(),
                                                  QStringLiteral("--unit"), m_UnitFile, QStringLiteral("--mount-base"), MountBase()});
    SetControlBus(m_Bus.Connection());
    // The simulator takes its control name last, once everything else serves.
    QElapsedTimer clock;
    clock.start();
    while (!m_Bus.Connection().interface()->isServiceRegistered(SimNames::ControlService)) {
        if (m_Simulator.state() == QProcess::NotRunning || clock.hasExpired(10000)) {
            message = QStringLiteral("the simulator did not come up (unit %1)").arg(m_UnitFile);
            Stop();
            return false;
        }
        QThread::msleep(20);
    }
    return true;
}

void tSimulatedUnit::Stop()
{
    StopProcess(m_Simulator);
    m_Bus.Stop();
}
