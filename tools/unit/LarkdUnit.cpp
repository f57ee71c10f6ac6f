#include "LarkdUnit.h"

#include "UnitProcesses.h"
#include "PrivateBus.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTcpServer>
#include <QTest>
#include <QThread>

#include <csignal>

quint16 FreePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

namespace
{
bool Accepts(quint16 port)
{
    QTcpSocket probe;
    probe.connectToHost(QHostAddress::LocalHost, port);
    return probe.waitForConnected(200);
}
} // namespace

tLarkdUnit::tLarkdUnit(const QString& unitFile, const QStringList& larkdOptions, quint16 port)
    : m_UnitFile(unitFile)
    , m_Options(larkdOptions)
    , m_Port(port)
{
    m_Process.setProcessChannelMode(QProcess::MergedChannels);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QT_LOGGING_RULES"), QStringLiteral("lk.daemon.debug=true"));
    m_Process.setProcessEnvironment(environment);
}

tLarkdUnit::~tLarkdUnit()
{
    if (m_Process.state() != QProcess::NotRunning && !Stop()) {
        m_Process.kill();
        m_Process.waitForFinished(5000);
    }
    if (!m_BusName.isEmpty())
        QDBusConnection::disconnectFromBus(m_BusName);
    // Bus and simulator end just after larkd and may still write their files.
    QElapsedTimer clock;
    clock.start();
    while (!m_State.remove() && !clock.hasExpired(3000))
        QThread::msleep(50);
}

void tLarkdUnit::SetEnvironment(const QString& name, const QString& value)
{
    QProcessEnvironment environment = m_Process.processEnvironment();
    environment.insert(name, value);
    m_Process.setProcessEnvironment(environment);
}

bool tLarkdUnit::Start(QString* error)
{
    QStringList arguments{m_State.path(), m_UnitFile};
    if (m_Port == 0) {
        m_Port = FreePort();
        arguments << QStringLiteral("--port") << QString::number(m_Port);
    }
    m_Process.start(UnitTool(QStringLiteral("larkd-unit.sh")), arguments + m_Options);
    // The bus file appears once the simulator serves, and larkd listens once
    // it has set up; a probe connection is harmless because the
    // application's own connection takes over afterwards.
    const QString busFile = m_State.filePath(QStringLiteral("bus"));
    QElapsedTimer clock;
    clock.start();
    while (!QFile::exists(busFile) || !Accepts(m_Port)) {
        if (m_Process.state() == QProcess::NotRunning || clock.hasExpired(20000)) {
            *error = QStringLiteral("the unit did not come up: ") + QString::fromLocal8Bit(Log());
            return false;
        }
        QTest::qWait(2);
    }
    QFile file(busFile);
    file.open(QIODevice::ReadOnly);
    m_BusName = QStringLiteral("larkd-unit-") + QString::number(quintptr(this));
    SetControlBus(QDBusConnection::connectToBus(QString::fromUtf8(file.readAll()).trimmed(), m_BusName));
    return true;
}

bool tLarkdUnit::Stop()
{
    SendSignal(m_Process, SIGTERM);
    return m_Process.waitForFinished(10000) && m_Process.exitStatus() == QProcess::NormalExit
           && m_Process.exitCode() == 0;
}

bool tLarkdUnit::Insert(const QString& slot, const QString& medium, QString* error)
{
    // Without LARKD_UNIT_SYSFS (the bench) the unit has no sysfs to write.
    const QString unitSysfs = m_Process.processEnvironment().value(QStringLiteral("LARKD_UNIT_SYSFS"));
    if (!unitSysfs.isEmpty()) {
        const tFinishedProcess sysfs = RunToEnd(QStringLiteral("nsenter"),
            {QStringLiteral("--mount"), QStringLiteral("--target"), QString::number(m_Process.processId()), unitSysfs,
             QStringLiteral("/sys"), m_UnitFile, slot + QLatin1Char('=') + medium});
        if (sysfs.exitCode != 0) {
            if (error)
                *error = QString::fromLocal8Bit(sysfs.err);
            return false;
        }
    }
    return tSimulatorControl::Insert(slot, medium, error);
}

bool tLarkdUnit::Remove(const QString& slot, QString* error)
{
    // A medium that was not mounted leaves no directory to wait for.
    const QDir media(Inside(QStringLiteral("/run/media")));
    auto mountDirectories = [&media] { return media.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks).size(); };
    const int before = mountDirectories();
    if (!tSimulatorControl::Remove(slot, error))
        return false;
    QElapsedTimer clock;
    clock.start();
    while (mountDirectories() >= before && !clock.hasExpired(1500))
        QTest::qWait(20);
    return true;
}

QString tLarkdUnit::CallsFile() const
{
    return m_State.filePath(QStringLiteral("calls"));
}

QStringList tLarkdUnit::Ran(const QString& program) const
{
    QFile file(CallsFile());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList calls;
    const QString prefix = program + QLatin1Char('\t');
    for (const QString& line : QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        if (line.startsWith(prefix))
            calls << line.mid(prefix.size());
    }
    return calls;
}

QByteArray tLarkdUnit::Log()
{
    m_Log += m_Process.readAll();
    return m_Log;
}

QByteArray tLarkdUnit::MountTable() const
{
    QFile mounts(QStringLiteral("/proc/%1/mounts").arg(m_Process.processId()));
    return mounts.open(QIODevice::ReadOnly) ? mounts.readAll() : QByteArray();
}

qint64 tLarkdUnit::LarkdPid() const
{
    QFile file(m_State.filePath(QStringLiteral("larkd.pid")));
    if (!file.open(QIODevice::ReadOnly))
        return m_Process.processId();
    return file.readAll().trimmed().toLongLong();
}

bool tLarkdUnit::KillAndAwaitRestart(QString* error)
{
    const qint64 killed = LarkdPid();
    if (killed == m_Process.processId()) {
        *error = QStringLiteral("larkd is not restarted in this unit");
        return false;
    }
    ::kill(pid_t(killed), SIGKILL);
    QElapsedTimer clock;
    clock.start();
    while (LarkdPid() == killed || LarkdPid() == 0) {
        if (m_Process.state() == QProcess::NotRunning || clock.hasExpired(10000)) {
            *error = QStringLiteral("larkd was not restarted: ") + QString::fromLocal8Bit(Log());
            return false;
        }
        QTest::qWait(10);
    }
    return true;
}

QString tLarkdUnit::Inside(const QString& path) const
{
    return QStringLiteral("/proc/%1/root%2").arg(m_Process.processId()).arg(path);
}

// The sticks' disks are named as the kernel names the first SCSI disks
// (sda..sdz, sdaa..), with their device numbers.
QByteArray UnitWithSticks(int count)
{
    QJsonArray slotList, media, present;
    for (int i = 0; i < count; ++i) {
        QString device = QStringLiteral("sd");
        if (i >= 26)
            device += QLatin1Char(char('a' + i / 26 - 1));
        device += QLatin1Char(char('a' + i % 26));
        const int major = i < 16 ? 8 : 65 + (i - 16) / 16;
        const int minor = (i < 16 ? i : (i - 16) % 16) * 16;
        const QString slot = QStringLiteral("usb%1").arg(i);
        const QString medium = QStringLiteral("stick%1").arg(i);
        slotList << QJsonObject{{QStringLiteral("name"), slot},
                             {QStringLiteral("bus"), QStringLiteral("usb")},
                             {QStringLiteral("device"), device},
                             {QStringLiteral("deviceNumber"), QStringLiteral("%1:%2").arg(major).arg(minor)}};
        media << QJsonObject{
            {QStringLiteral("name"), medium},
            {QStringLiteral("vendor"), QStringLiteral("Bench")},
            {QStringLiteral("model"), QStringLiteral("Stick")},
            {QStringLiteral("serial"), QStringLiteral("%1").arg(i + 1, 12, 10, QLatin1Char('0'))},
            {QStringLiteral("size"), 8004304896.0},
            {QStringLiteral("partitions"),
             QJsonArray{QJsonObject{{QStringLiteral("type"), QStringLiteral("vfat")},
                                    {QStringLiteral("label"), QStringLiteral("VOL%1").arg(i + 1, 2, 10, QLatin1Char('0'))},
                                    {QStringLiteral("uuid"), QStringLiteral("BE%1-0001").arg(i + 1, 2, 16, QLatin1Char('0')).toUpper()}}}}};
        present << QJsonObject{{QStringLiteral("slot"), slot}, {QStringLiteral("medium"), medium}};
    }
    return QJsonDocument(QJsonObject{{QStringLiteral("slots"), slotList},
                                     {QStringLiteral("media"), media},
                                     {QStringLiteral("present"), present}})
        .toJson();
}
