#pragma once

#include "system/NetworkInterfaceMonitor.h"

#include <QMap>
#include <QSet>
#include <QString>

#include <set>

class QTcpSocket;
struct tNetlinkMessage;

// Follows the kernel's link and IPv4 address tables over rtnetlink: a dump of
// links, then of addresses, then change notifications; any error or overrun
// starts the dump again.
class tLinuxInterfaceMonitor : public tNetworkInterfaceMonitor
{
    Q_OBJECT
public:
    explicit tLinuxInterfaceMonitor(QObject* parent = nullptr);
    ~tLinuxInterfaceMonitor() override;

    void AddInterface(const QString& name) override;
    void RemoveAllInterfaces() override;
    void RemoveInterface(const QString& name) override;

private slots:
    void OnReadyRead();
    void OnSocketError();

private:
    enum SyncPhase { cDumpingLinks = 0, cDumpingAddresses = 1, cFollowingChanges = 2 };

    void Open();
    void CloseUnadopted();
    void Resynchronise();
    void SendMessageToKernel(quint16 type);
    void ProcessMessage(const tNetlinkMessage& message, std::set<QString>* touched);
    QString InterfaceName(int index);
    void ReplaceAddressesWithDump(std::set<QString>* touched);

    quint32 m_SequenceNumber = 1;
    std::set<QString> m_Watched;
    QMap<QString, InterfaceState> m_States;
    int m_SyncPhase = cDumpingLinks;
    int m_NetlinkFd = -1;
    QTcpSocket* m_Socket = nullptr;
    // A deleted link can no longer be named by the kernel; remember the names seen.
    QMap<int, QString> m_Names;
    QMap<QString, QSet<quint32>> m_DumpedAddresses; // collected while dumping addresses
};
