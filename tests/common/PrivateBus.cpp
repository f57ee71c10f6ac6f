#include "PrivateBus.h"

#include "DaemonProcess.h"

#include <QFile>

namespace
{
const char* const Config = R"XML(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path=%1</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_type="method_return"/>
    <allow send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="signal"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
  </policy>
</busconfig>
)XML";
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
    const QString configPath = m_Dir.filePath(QStringLiteral("bus.conf"));
    QFile config(configPath);
    if (!config.open(QIODevice::WriteOnly)
        || config.write(QString::fromLatin1(Config).arg(m_Dir.filePath(QStringLiteral("bus"))).toUtf8()) < 0) {
        message = QStringLiteral("cannot write %1").arg(configPath);
        return false;
    }
    config.close();
    // Its only complaint as root is about the fd limit; keep the test output clean.
    m_Daemon.setStandardErrorFile(QProcess::nullDevice());
    // setpriv ties the daemon to this process: it goes even when a test crashes.
    m_Daemon.start(QStringLiteral("setpriv"), {QStringLiteral("--pdeathsig"), QStringLiteral("TERM"), QStringLiteral("--"),
                                               QStringLiteral("dbus-daemon"), QStringLiteral("--config-file=") + configPath,
                                               QStringLiteral("--nofork"), QStringLiteral("--print-address")});
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
