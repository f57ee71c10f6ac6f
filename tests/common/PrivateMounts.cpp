#include "PrivateMounts.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cerrno>
#include <cstring>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace {
QString g_unavailable = QStringLiteral("the private mount namespace was not requested in main()");
}

bool EnterPrivateMountNamespace()
{
    if (geteuid() != 0) {
        g_unavailable = QStringLiteral("needs root for a private mount namespace");
        return false;
    }
    if (unshare(CLONE_NEWNS) != 0) {
        g_unavailable = QStringLiteral("unshare(CLONE_NEWNS) failed: %1").arg(QString::fromLocal8Bit(strerror(errno)));
        return false;
    }
    // Nothing mounted from here on may propagate back to the machine.
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        g_unavailable = QStringLiteral("making / private failed: %1").arg(QString::fromLocal8Bit(strerror(errno)));
        return false;
    }
    g_unavailable.clear();
    return true;
}

QString PrivateMountNamespaceUnavailable()
{
    return g_unavailable;
}

bool MountTmpfs(const QString& dir)
{
    if (!g_unavailable.isEmpty())
        return false;
    QDir().mkpath(dir);
    return mount("larkd-test", QFile::encodeName(dir).constData(), "tmpfs", 0, "mode=0755") == 0;
}

bool ReplaceDevWithTmpfs()
{
    if (!g_unavailable.isEmpty())
        return false;
    QTemporaryDir keep;
    const QByteArray keepPath = QFile::encodeName(keep.path());
    if (mount("/dev", keepPath.constData(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
        return false;
    bool ok = mount("larkd-test-dev", "/dev", "tmpfs", 0, "mode=0755") == 0;
    for (const char* node : { "null", "zero", "full", "random", "urandom", "tty" }) {
        if (!ok)
            break;
        const QByteArray target = QByteArray("/dev/") + node;
        QFile placeholder(QString::fromLatin1(target));
        ok = placeholder.open(QIODevice::WriteOnly);
        placeholder.close();
        ok = ok && mount((keepPath + '/' + node).constData(), target.constData(), nullptr, MS_BIND, nullptr) == 0;
    }
    umount2(keepPath.constData(), MNT_DETACH);
    return ok;
}
