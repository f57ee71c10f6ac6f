// The socket-free netlink walk: how messages are delimited and how link and
// address messages change an interface's state, including malformed input.
#include "system/NetlinkMessages.h"

#include <QtTest>

#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>

#include <cstring>

namespace
{
QByteArray Message(quint16 type, const QByteArray& body, quint32 lengthOverride = 0)
{
    nlmsghdr header{};
    header.nlmsg_len = lengthOverride ? lengthOverride : quint32(sizeof header + body.size());
    header.nlmsg_type = type;
    QByteArray message(reinterpret_cast<const char*>(&header), sizeof header);
    message += body;
    while (message.size() % 4)
        message += '\0';
    return message;
}

QByteArray Link(int index, unsigned flags)
{
    ifinfomsg info{};
    info.ifi_index = index;
    info.ifi_flags = flags;
    return QByteArray(reinterpret_cast<const char*>(&info), sizeof info);
}

QByteArray Addr(int index, const QList<QPair<quint16, quint32>>& attributes)
{
    ifaddrmsg addr{};
    addr.ifa_family = AF_INET;
    addr.ifa_index = static_cast<quint32>(index);
    QByteArray body(reinterpret_cast<const char*>(&addr), sizeof addr);
    for (const auto& attribute : attributes) {
        rtattr header{};
        header.rta_len = sizeof header + 4;
        header.rta_type = attribute.first;
        const quint32 networkOrder = htonl(attribute.second);
        body += QByteArray(reinterpret_cast<const char*>(&header), sizeof header);
        body += QByteArray(reinterpret_cast<const char*>(&networkOrder), 4);
    }
    return body;
}

struct tWalk
{
    QList<quint16> types;
    tNetworkInterfaceMonitor::InterfaceState state;
    QList<int> indexes;
};

tWalk Walk(const QByteArray& buffer)
{
    tWalk walk;
    WalkNetlinkMessages(buffer.constData(), buffer.size(), [&](const tNetlinkMessage& message) {
        walk.types << message.type;
        int index = 0;
        if (NetlinkInterfaceIndex(message, &index))
            walk.indexes << index;
        ApplyNetlinkMessage(message, &walk.state);
    });
    return walk;
}
} // namespace

class tNetlinkMessagesTest : public QObject
{
    Q_OBJECT
private slots:
    void linkAndAddressMessagesBuildTheState();
    void walkStopsAtMessagesThatDoNotFit();
};

void tNetlinkMessagesTest::linkAndAddressMessagesBuildTheState()
{
    // A link with an odd-sized body checks the 4-byte alignment between messages.
    const QByteArray buffer = Message(RTM_NEWLINK, Link(3, IFF_UP | IFF_RUNNING) + "x")
        + Message(RTM_NEWADDR, Addr(3, {{IFA_ADDRESS, 0x0a000001}, {IFA_LOCAL, 0xa9fe0a01}}))
        + Message(RTM_NEWADDR, Addr(3, {{IFA_LOCAL, 0xa9fe0a02}}))
        + Message(RTM_DELADDR, Addr(3, {{IFA_LOCAL, 0xa9fe0a01}}))
        + Message(RTM_NEWLINK, Link(3, IFF_UP))
        + Message(NLMSG_DONE, QByteArray(4, '\0'));
    const tWalk walk = Walk(buffer);
    QCOMPARE(walk.types, (QList<quint16>{RTM_NEWLINK, RTM_NEWADDR, RTM_NEWADDR, RTM_DELADDR, RTM_NEWLINK, NLMSG_DONE}));
    QCOMPARE(walk.indexes.mid(0, 5), (QList<int>{3, 3, 3, 3, 3}));
    // IFA_ADDRESS (the peer address on point-to-point links) is not ours.
    QCOMPARE(walk.state.addresses, QSet<quint32>{0xa9fe0a02});
    QVERIFY(walk.state.present);
    QVERIFY(!walk.state.running);

    const tWalk deleted = Walk(Message(RTM_NEWLINK, Link(3, IFF_RUNNING)) + Message(RTM_DELLINK, Link(3, 0)));
    QVERIFY(!deleted.state.present);
    QVERIFY(deleted.state.running);
}

void tNetlinkMessagesTest::walkStopsAtMessagesThatDoNotFit()
{
    const QByteArray good = Message(RTM_NEWADDR, Addr(2, {{IFA_LOCAL, 1}}));

    // Nothing at all, or less than a header.
    QCOMPARE(Walk(QByteArray()).types.size(), 0);
    QCOMPARE(Walk(good.left(15)).types.size(), 0);
    // A length past the end, or shorter than a header (which would never advance).
    QCOMPARE(Walk(good + Message(RTM_NEWLINK, Link(1, 0), 400)).types.size(), 1);
    QCOMPARE(Walk(good + Message(RTM_NEWLINK, QByteArray(), 8) + good).types.size(), 1);
    // A message whose declared length cuts into its attributes keeps within it.
    QByteArray cut = good;
    const quint32 shortLength = 24 + 6;
    std::memcpy(cut.data(), &shortLength, 4);
    const tWalk walkCut = Walk(cut);
    QCOMPARE(walkCut.types.size(), 1);
    QVERIFY(walkCut.state.addresses.isEmpty());
    // A link message too short for its flags names no interface and changes nothing.
    const tWalk tiny = Walk(Message(RTM_NEWLINK, QByteArray(2, '\0')));
    QCOMPARE(tiny.types.size(), 1);
    QVERIFY(tiny.indexes.isEmpty());
    QVERIFY(!tiny.state.present);
}

QTEST_GUILESS_MAIN(tNetlinkMessagesTest)
#include "tst_netlinkmessages.moc"
