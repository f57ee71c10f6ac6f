#include "LarkdUnit.h"

#include "DaemonProcess.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QTcpServer>
#include <QTest>
#include <QThread>

#include <csignal>

namespace
{
const QString cControlService = QStringLiteral("org.larkd.UDisks2Sim");
const QString cControlPath = QStringLiteral("/org/larkd/UDisks2Sim");
const QString cControlInterface = QStringLiteral("org.larkd.UDisks2Sim");

// A port nobody listens on right now.
quint16 FreePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

bool Succeeded(const QDBusMessage& reply, QString* error)
{
    if (reply.type() == QDBusMessage::ReplyMessage)
        return true;
    if (error)
        *error = reply.errorMessage();
    return false;
}
} // namespace

tLarkdUnit::tLarkdUnit(const QString& unitFile, const QStringList& larkdOptions)
    : m_UnitFile(unitFile)
    , m_Options(larkdOptions)
{
    m_Process.setProcessChannelMode(QProcess::MergedChannels);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QT_LOGGING_RULES"), QStringLiteral("lk.daemon.debug=true"));
    m_Process.setProcessEnvironment(environment);
}

tLarkdUnit::~tLarkdUnit()
{
    if (m_Process.state() != QProcess::NotRunning) {
        SendSignal(m_Process, SIGTERM);
        if (!m_Process.waitForFinished(10000)) {
            m_Process.kill();
            m_Process.waitForFinished(5000);
        }
    }
    if (!m_BusName.isEmpty())
        QDBusConnection::disconnectFromBus(m_BusName);
    // Bus and simulator end just after larkd and may still write their files.
    QElapsedTimer clock;
    clock.start();
    while (!m_State.remove() && !clock.hasExpired(3000))
        QThread::msleep(50);
}

bool tLarkdUnit::Start(QString* error)
{
    m_Port = FreePort();
    const QStringList arguments = QStringList{m_State.path(), m_UnitFile, QStringLiteral("--port"),
                                              QString::number(m_Port)}
                                  + m_Options;
    m_Process.start(UnitTool(QStringLiteral("larkd-unit.sh")), arguments);
    if (!m_Process.waitForStarted(10000)) {
        *error = QStringLiteral("larkd-unit.sh did not start: ") + m_Process.errorString();
        return false;
    }
    const QString busFile = m_State.filePath(QStringLiteral("bus"));
    QElapsedTimer clock;
    clock.start();
    while (!QFile::exists(busFile)) {
        if (m_Process.state() == QProcess::NotRunning || clock.hasExpired(20000)) {
            *error = QStringLiteral("the unit did not come up: ") + QString::fromLocal8Bit(Log());
            return false;
        }
        QTest::qWait(20);
    }
    QFile file(busFile);
    file.open(QIODevice::ReadOnly);
    const QString address = QString::fromUtf8(file.readAll()).trimmed();
    m_BusName = QStringLiteral("larkd-unit-") + QString::number(quintptr(this));
    if (!QDBusConnection::connectToBus(address, m_BusName).isConnected()) {
        *error = QStringLiteral("cannot reach the unit's bus at ") + address;
        return false;
    }
    // larkd listens once it has set up; a probe connection is harmless
    // because the application's own connection takes over afterwards.
    while (true) {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, m_Port);
        if (probe.waitForConnected(200))
            return true;
        if (m_Process.state() == QProcess::NotRunning || clock.hasExpired(20000)) {
            *error = QStringLiteral("larkd does not listen: ") + QString::fromLocal8Bit(Log());
            return false;
        }
        QTest::qWait(20);
    }
}

bool tLarkdUnit::Stop()
{
    SendSignal(m_Process, SIGTERM);
    return m_Process.waitForFinished(10000) && m_Process.exitStatus() == QProcess::NormalExit
           && m_Process.exitCode() == 0;
}

bool tLarkdUnit::Control(const QString& method, const QVariantList& arguments, QString* error)
{
    QDBusMessage call = QDBusMessage::createMethodCall(cControlService, cControlPath, cControlInterface, method);
    call.setArguments(arguments);
    return Succeeded(QDBusConnection(m_BusName).call(call), error);
}

bool tLarkdUnit::Insert(const QString& slot, const QString& medium, QString* error)
{
    return Control(QStringLiteral("Insert"), {slot, medium}, error);
}

bool tLarkdUnit::Hold(const QString& method, int ms, QString* error)
{
    return Control(QStringLiteral("Hold"), {method, ms}, error);
}

bool tLarkdUnit::ServiceAway(QString* error)
{
    return Control(QStringLiteral("Away"), {}, error);
}

bool tLarkdUnit::ServiceBack(QString* error)
{
    return Control(QStringLiteral("Back"), {}, error);
}

bool tLarkdUnit::Remove(const QString& slot, QString* error)
{
    // Like the real service, the simulator removes a pulled medium's mount
    // directory a moment after the medium itself; until then the same medium
    // put back would get another directory name. Wait for that clean-up (at
    // most 1.5 s: a medium that was not mounted leaves nothing to clean).
    const QDir media(Inside(QStringLiteral("/run/media")));
    auto mountDirectories = [&media] { return media.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks).size(); };
    const int before = mountDirectories();
    if (!Control(QStringLiteral("Remove"), {slot}, error))
        return false;
    QElapsedTimer clock;
    clock.start();
    while (mountDirectories() >= before && !clock.hasExpired(1500))
        QTest::qWait(20);
    return true;
}

bool tLarkdUnit::UnmountBehind(const QString& node, QString* error)
{
    return Control(QStringLiteral("Unmount"), {node}, error);
}

QStringList tLarkdUnit::SimulatorCalls()
{
    const QDBusMessage reply = QDBusConnection(m_BusName).call(
        QDBusMessage::createMethodCall(cControlService, cControlPath, cControlInterface, QStringLiteral("Calls")));
    return reply.arguments().value(0).toStringList();
}

QStringList tLarkdUnit::Calls(const QString& program) const
{
    QFile file(m_State.filePath(QStringLiteral("calls")));
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

bool tLarkdUnit::WaitForMountPoint(const QString& node, int timeoutMs)
{
    const QByteArray line = "tLarkDaemon::OnFileSystemChanged(): node = " + node.toUtf8();
    QElapsedTimer clock;
    clock.start();
    while (!Log().contains(line)) {
        if (clock.hasExpired(timeoutMs))
            return false;
        QTest::qWait(20);
    }
    return true;
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

bool tAppConnection::Connect(quint16 port)
{
    QObject::disconnect(&m_Socket, &QTcpSocket::readyRead, nullptr, nullptr);
    QObject::connect(&m_Socket, &QTcpSocket::readyRead, [this] { Read(); });
    m_Socket.connectToHost(QHostAddress::LocalHost, port);
    return m_Socket.waitForConnected(5000);
}

bool tAppConnection::ConnectWhenListening(quint16 port, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!Connect(port)) {
        m_Socket.abort();
        if (clock.hasExpired(timeoutMs))
            return false;
        QThread::msleep(2);
    }
    return true;
}

void tAppConnection::SendRaw(const QByteArray& bytes)
{
    m_Socket.write(bytes);
    m_Socket.flush();
}

void tAppConnection::Send(const QJsonObject& message)
{
    SendRaw(QJsonDocument(message).toJson(QJsonDocument::Compact) + QByteArray(1, '\0'));
}

void tAppConnection::Read()
{
    m_Pending += m_Socket.readAll();
    int end;
    while ((end = m_Pending.indexOf('\0')) >= 0) {
        m_Documents << m_Pending.left(end);
        m_Pending.remove(0, end + 1);
    }
}

QList<QByteArray> tAppConnection::TakeDocuments()
{
    Read();
    const QList<QByteArray> documents = m_Documents;
    m_Documents.clear();
    return documents;
}

QList<QJsonObject> tAppConnection::Arrivals()
{
    Read();
    QList<QJsonObject> arrivals;
    for (const QByteArray& document : qAsConst(m_Documents)) {
        const QJsonObject message = QJsonDocument::fromJson(document).object().value(QStringLiteral("message")).toObject();
        arrivals << message.value(QStringLiteral("content")).toObject().value(QStringLiteral("dataarrival")).toObject();
    }
    return arrivals;
}

QList<QJsonObject> tAppConnection::TakeArrivals(int count, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (Arrivals().size() < count && !clock.hasExpired(timeoutMs))
        QTest::qWait(20);
    const QList<QJsonObject> arrivals = Arrivals();
    m_Documents.clear();
    return arrivals;
}

QJsonObject AppRequest(const QString& type, const QJsonValue& content)
{
    QJsonObject message{{QStringLiteral("type"), type}};
    if (!content.isUndefined())
        message.insert(QStringLiteral("content"), content);
    return QJsonObject{{QStringLiteral("message"), message}};
}
