// The socket-free netlink walk: how messages are delimited and how link and
// address messages change an interface's state, malformed input included.
#include "system/NetlinkMessages.h"

#include <QtTest>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>

namespace
{
template <typename T>
QByteArray Bytes(const T& value)
{
    return QByteArray(reinterpret_cast<const char*>(&value), sizeof value);
}

// Padded to 4 bytes, as the kernel aligns messages.
QByteArray Message(quint16 type, const QByteArray& body, quint32 length = 0)
{
    nlmsghdr header{};
    header.nlmsg_len = length ? length : quint32(sizeof header + body.size());
    header.nlmsg_type = type;
    QByteArray message = Bytes(header) + body;
    return message.leftJustified((message.size() + 3) & ~3, '\0');
}

QByteArray Link(int index, unsigned flags)
{
    ifinfomsg info{};
    info.ifi_index = index;
    info.ifi_flags = flags;
    return Bytes(info);
}

QByteArray Addr(int index, const QList<QPair<quint16, quint32>>& attributes)
{
    ifaddrmsg addr{};
    addr.ifa_family = AF_INET;
    addr.ifa_index = static_cast<quint32>(index);
    QByteArray body = Bytes(addr);
    for (const auto& attribute : attributes)
        body += Bytes(rtattr{sizeof(rtattr) + 4, attribute.first}) + Bytes(htonl(attribute.second));
    return body;
}
} // namespace

class tNetlinkMessagesTest : public QObject
{
    Q_OBJECT
private slots:
    void messagesBuildTheStateAndStopWhereTheyDoNotFit()
    {
        const QByteArray good = Message(RTM_NEWADDR, Addr(2, {{IFA_LOCAL, 1}}));
        QByteArray cut = good; // its declared length cuts into the attribute
        cut.replace(0, 4, Bytes(quint32(24 + 6)));
        const struct
        {
            QByteArray buffer;
            QList<int> indexes; // one a message, -1 if it names no interface
            QSet<quint32> addresses;
            bool present, running;
        } cases[] = {
            // An odd-sized link body checks the alignment between messages;
            // IFA_ADDRESS (the far end of a point-to-point link) is not ours;
            // up without carrier is not running.
            {Message(RTM_NEWLINK, Link(3, IFF_UP | IFF_RUNNING) + "x")
                 + Message(RTM_NEWADDR, Addr(3, {{IFA_ADDRESS, 0x0a000001}, {IFA_LOCAL, 0xa9fe0a01}}))
                 + Message(RTM_NEWADDR, Addr(3, {{IFA_LOCAL, 0xa9fe0a02}}))
                 + Message(RTM_DELADDR, Addr(3, {{IFA_LOCAL, 0xa9fe0a01}})) + Message(RTM_NEWLINK, Link(3, IFF_UP))
                 + Message(NLMSG_DONE, QByteArray(4, '\0')),
             {3, 3, 3, 3, 3, -1}, {0xa9fe0a02}, true, false},
            {Message(RTM_NEWLINK, Link(3, IFF_RUNNING)) + Message(RTM_DELLINK, Link(4, 0)), {3, 4}, {}, false, true},
            {QByteArray(), {}, {}, false, false},
            {good.left(15), {}, {}, false, false},
            {good + Message(RTM_NEWLINK, Link(1, IFF_RUNNING), 400), {2}, {1}, false, false}, // past the end
            // Shorter than a header: it would never advance.
            {good + Message(RTM_NEWLINK, QByteArray(), 8) + good, {2}, {1}, false, false},
            {cut, {2}, {}, false, false},
            // Too short for its flags: it names no interface and changes nothing.
            {Message(RTM_NEWLINK, QByteArray(2, '\0')), {-1}, {}, false, false},
        };
        for (const auto& c : cases) {
            QList<int> indexes;
            tNetworkInterfaceMonitor::InterfaceState state;
            WalkNetlinkMessages(c.buffer.constData(), c.buffer.size(), [&](const tNetlinkMessage& message) {
                int index = 0;
                indexes << (NetlinkInterfaceIndex(message, &index) ? index : -1);
                ApplyNetlinkMessage(message, &state);
            });
            const QByteArray hex = c.buffer.toHex();
            QVERIFY2(indexes == c.indexes && state.addresses == c.addresses, hex.constData());
            QVERIFY2(state.present == c.present && state.running == c.running, hex.constData());
        }
    }
};

QTEST_GUILESS_MAIN(tNetlinkMessagesTest)
#include "tst_netlinkmessages.moc"
