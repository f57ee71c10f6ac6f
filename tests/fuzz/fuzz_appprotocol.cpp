// Whatever a local program writes to the application port, read by larkd
// itself: one daemon, with no UDisks2 to ask and no program to run, takes
// each input over a connection of its own, in several writes that it reads
// one at a time, and acts on every request it holds.
#include "LarkdUnit.h"
#include "PrivateMounts.h"
#include "daemon/DaemonConfig.h"
#include "daemon/LarkDaemon.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QLoggingCategory>
#include <QTcpSocket>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace
{
quint16 g_Port = 0;

// What the daemon's loop would do next: the sockets are ready at once on
// loopback. Finished clients' sockets are freed as the loop would free them.
void Turn()
{
    for (int i = 0; i < 3; ++i)
        QCoreApplication::processEvents();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}
} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    // The daemon sweeps /run/media: that of a private mount namespace, not the machine's.
    if (!EnterPrivateMountNamespace() || !MountTmpfs(QStringLiteral("/run/media"))) {
        std::fprintf(stderr, "fuzz_appprotocol: not run: %s\n", qPrintable(PrivateMountNamespaceUnavailable()));
        std::exit(77);
    }
    // UDisks2 calls fail at once; exportfs and mount are never found.
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    setenv("PATH", "/nonexistent", 1);
    static QCoreApplication app(*argc, *argv);
    // Malformed input is logged at every turn: quiet, the fuzzer runs faster.
    QLoggingCategory::setFilterRules(QStringLiteral("lk.*=false"));
    tDaemonConfig config;
    config.port = g_Port = FreePort();
    config.disableSyslog = true;
    // The application names the sharing interface, and may let peer shares go.
    config.twoWayConnection = true;
    static tLarkDaemon daemon(config);
    Turn();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0)
        return 0;
    QTcpSocket client;
    client.connectToHost(QHostAddress::LocalHost, g_Port);
    if (!client.waitForConnected(1000))
        std::abort();
    Turn();
    // The first byte chooses the write size, so messages straddle reads.
    const qint64 chunk = data[0] % 64 + 1;
    const char* bytes = reinterpret_cast<const char*>(data + 1);
    qint64 left = qint64(size) - 1;
    while (left > 0) {
        const qint64 now = qMin(left, chunk);
        client.write(bytes, now);
        client.waitForBytesWritten(1000);
        Turn();
        bytes += now;
        left -= now;
    }
    client.disconnectFromHost();
    Turn();
    return 0;
}
