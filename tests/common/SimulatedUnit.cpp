#include "SimulatedUnit.h"

#include "DaemonProcess.h"

#include <QDBusConnectionInterface>
#include <QDir>
#include <QElapsedTimer>
#include <QThread>

namespace
{
const QString ControlService = QStringLiteral("org.larkd.UDisks2Sim");
const QString ControlPath = QStringLiteral("/org/larkd/UDisks2Sim");
const QString ControlInterface = QStringLiteral("org.larkd.UDisks2Sim");

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
    // The simulator takes its control name last, once everything else serves.
    QElapsedTimer clock;
    clock.start();
    while (!m_Bus.Connection().interface()->isServiceRegistered(ControlService)) {
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

bool tSimulatedUnit::Insert(const QString& slot, const QString& medium, QString* error)
{
    return Succeeded(Control(QStringLiteral("Insert"), {slot, medium}), error);
}

bool tSimulatedUnit::Remove(const QString& slot, QString* error)
{
    return Succeeded(Control(QStringLiteral("Remove"), {slot}), error);
}

bool tSimulatedUnit::Unmount(const QString& node, QString* error)
{
    return Succeeded(Control(QStringLiteral("Unmount"), {node}), error);
}

bool tSimulatedUnit::FailNextMount(const QString& message)
{
    return Succeeded(Control(QStringLiteral("FailNextMount"), {message}), nullptr);
}

bool tSimulatedUnit::Hold(const QString& method, int milliseconds, QString* error)
{
    return Succeeded(Control(QStringLiteral("Hold"), {method, milliseconds}), error);
}

QStringList tSimulatedUnit::Calls()
{
    const QDBusMessage reply = Control(QStringLiteral("Calls"), {});
    return reply.type() == QDBusMessage::ReplyMessage ? reply.arguments().value(0).toStringList() : QStringList();
}

QStringList tSimulatedUnit::Timeline()
{
    const QDBusMessage reply = Control(QStringLiteral("Timeline"), {});
    return reply.type() == QDBusMessage::ReplyMessage ? reply.arguments().value(0).toStringList() : QStringList();
}

QDBusMessage tSimulatedUnit::Control(const QString& method, const QVariantList& args)
{
    QDBusMessage call = QDBusMessage::createMethodCall(ControlService, ControlPath, ControlInterface, method);
    call.setArguments(args);
    return m_Bus.Connection().call(call);
}

bool tSimulatedUnit::Succeeded(const QDBusMessage& reply, QString* error)
{
    if (reply.type() == QDBusMessage::ReplyMessage)
        return true;
    if (error)
        *error = reply.errorMessage();
    return false;
}
