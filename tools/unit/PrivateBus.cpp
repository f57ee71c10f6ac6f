#include "PrivateBus.h"

#include "UnitProcesses.h"

#include <QDir>

QString UnitTool(const QString& name)
{
    return QDir(QStringLiteral(LARKD_UNIT_TOOLS)).filePath(name);
}

tPrivateBus::~tPrivateBus()
{
    Stop();
}

bool tPrivateBus::Start(bool exportAsSystemBus, QString* error)
{
    QString ignored;
    QString& message = error ? *error : ignored;
    if (!m_Dir.isValid()) {
        message = QStringLiteral("no temporary directory");
        return false;
    }
    // setpriv ties the bus to this process: it goes even when a test crashes.
    m_Daemon.start(QStringLiteral("setpriv"), {QStringLiteral("--pdeathsig"), QStringLiteral("TERM"), QStringLiteral("--"),
                                               UnitTool(QStringLiteral("private-bus.sh")), m_Dir.path()});
    while (!m_Daemon.canReadLine() && m_Daemon.waitForReadyRead(10000)) {
    }
    m_Address = QString::fromUtf8(m_Daemon.readLine().trimmed());
    if (m_Address.isEmpty()) {
        message = QStringLiteral("dbus-daemon did not start: %1").arg(m_Daemon.errorString());
        Stop();
        return false;
    }
    if (exportAsSystemBus)
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", m_Address.toUtf8());
    m_ConnectionName = QStringLiteral("larkd-test-bus-") + m_Dir.path();
    return true;
}

QDBusConnection tPrivateBus::Connection() const
{
    // connectToBus() hands back the same connection once it is made.
    return QDBusConnection::connectToBus(m_Address, m_ConnectionName);
}

void tPrivateBus::Stop()
{
    if (!m_ConnectionName.isEmpty()) {
        QDBusConnection::disconnectFromBus(m_ConnectionName);
        m_ConnectionName.clear();
    }
    StopProcess(m_Daemon);
    m_Address.clear();
}
