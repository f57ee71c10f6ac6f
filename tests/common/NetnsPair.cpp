#include "NetnsPair.h"

#include "DaemonProcess.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace
{
const QString cPrefix = QStringLiteral("larkd-t");
int g_Counter = 0;
} // namespace

QString tNetnsPair::Unavailable()
{
    if (geteuid() != 0)
        return QStringLiteral("needs root to create network namespaces");
    if (RunToEnd(QStringLiteral("ip"), {QStringLiteral("-V")}).exitCode != 0)
        return QStringLiteral("needs the ip tool (iproute2)");
    return QString();
}

void tNetnsPair::RemoveLeftovers()
{
    static const QRegularExpression pattern(QStringLiteral("^larkd-t(\\d+)-"));
    const QStringList names = QDir(QStringLiteral("/run/netns")).entryList(QDir::Files | QDir::System);
    for (const QString& name : names) {
        const QRegularExpressionMatch match = pattern.match(name);
        if (match.hasMatch() && !QDir(QStringLiteral("/proc/") + match.captured(1)).exists())
            RunToEnd(QStringLiteral("ip"), {QStringLiteral("netns"), QStringLiteral("del"), name});
    }
}

tNetnsPair::tNetnsPair()
{
    m_HomeFd = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    RemoveLeftovers();
    const QString stem = cPrefix + QString::number(getpid()) + QLatin1Char('-') + QString::number(++g_Counter);
    m_A = stem + QStringLiteral("a");
    m_B = stem + QStringLiteral("b");
    // B is created first so that a failure part-way still leaves names for the destructor.
    const bool made = Ip({"netns", "add", m_B}) && Ip({"netns", "add", m_A})
        && Ip({"-n", m_A, "link", "add", InterfaceA(), "address", MacA(), "type", "veth", "peer", "name", InterfaceB(),
               "address", MacB(), "netns", m_B})
        && Ip({"-n", m_A, "addr", "add", AddressA() + "/16", "dev", InterfaceA()})
        && Ip({"-n", m_B, "addr", "add", AddressB() + "/16", "dev", InterfaceB()})
        && Ip({"-n", m_A, "link", "set", "lo", "up"}) && Ip({"-n", m_B, "link", "set", "lo", "up"})
        && Ip({"-n", m_A, "link", "set", InterfaceA(), "up"}) && Ip({"-n", m_B, "link", "set", InterfaceB(), "up"});
    if (made)
        m_Error.clear();
}

tNetnsPair::~tNetnsPair()
{
    Leave();
    for (const QString& name : {m_A, m_B})
        RunToEnd(QStringLiteral("ip"), {QStringLiteral("netns"), QStringLiteral("del"), name});
    if (m_HomeFd >= 0)
        close(m_HomeFd);
}

void tNetnsPair::Leave()
{
    if (m_HomeFd >= 0)
        setns(m_HomeFd, CLONE_NEWNET);
}

bool tNetnsPair::Ip(const QStringList& arguments)
{
    const tFinishedProcess result = RunToEnd(QStringLiteral("ip"), arguments);
    if (result.exitStatus == QProcess::NormalExit && result.exitCode == 0)
        return true;
    m_Error = QStringLiteral("ip %1: %2").arg(arguments.join(QLatin1Char(' ')), QString::fromLocal8Bit(result.err));
    return false;
}

bool tNetnsPair::Enter(const QString& netns)
{
    const QByteArray path = QFile::encodeName(QStringLiteral("/run/netns/") + netns);
    const int fd = open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool entered = setns(fd, CLONE_NEWNET) == 0;
    close(fd);
    return entered;
}
