#pragma once

#include <QString>
#include <QStringList>

// Two network namespaces ("units") joined by a veth pair with link-local
// addresses: unit A has interface "lk0" at 169.254.10.1/16, unit B "lk1" at
// 169.254.10.2/16, each with a fixed MAC address. Names carry the process id,
// so parallel runs do not collide; namespaces left by a killed run are removed
// by the next one. The destructor removes both, whatever happened in between.
class tNetnsPair
{
public:
    tNetnsPair();
    ~tNetnsPair();
    tNetnsPair(const tNetnsPair&) = delete;
    tNetnsPair& operator=(const tNetnsPair&) = delete;

    // Empty when the pair exists; otherwise why it could not be made.
    QString Error() const { return m_Error; }

    QString NamespaceA() const { return m_A; }
    QString NamespaceB() const { return m_B; }
    static QString InterfaceA() { return QStringLiteral("lk0"); }
    static QString InterfaceB() { return QStringLiteral("lk1"); }
    static QString AddressA() { return QStringLiteral("169.254.10.1"); }
    static QString AddressB() { return QStringLiteral("169.254.10.2"); }
    static QString MacA() { return QStringLiteral("02:4c:4b:00:0a:01"); }
    static QString MacB() { return QStringLiteral("02:4c:4b:00:0a:02"); }

    // Moves the calling thread into a namespace (sockets opened afterwards live
    // there, and child processes start there) and back to where it started;
    // the destructor moves it back too.
    bool Enter(const QString& netns);
    void Leave();

    // Runs `ip` with the arguments; false (with the output in Error()) on failure.
    bool Ip(const QStringList& arguments);

    // Why a test needing namespaces cannot run here, or empty if it can.
    static QString Unavailable();

private:
    static void RemoveLeftovers();

    QString m_A;
    QString m_B;
    QString m_Error;
    int m_HomeFd = -1;
};

// Skips the test, with the reason, where namespaces cannot be made.
#define LARKD_REQUIRE_NETNS()                                                                                \
    do {                                                                                                     \
        const QString unavailable = tNetnsPair::Unavailable();                                               \
        if (!unavailable.isEmpty())                                                                          \
            QSKIP(qPrintable(QStringLiteral("network namespace test: ") + unavailable));                     \
    } while (false)
