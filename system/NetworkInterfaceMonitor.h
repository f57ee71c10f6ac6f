#pragma once

#include <QMetaType>
#include <QObject>
#include <QSet>
#include <QString>

// Reports the link and IPv4 address state of watched network interfaces.
class tNetworkInterfaceMonitor : public QObject
{
    Q_OBJECT
public:
    struct InterfaceState
    {
        QSet<quint32> addresses; // IPv4, host byte order
        bool running = false;
        bool present = false;

        bool operator==(const InterfaceState& other) const
        {
            return addresses == other.addresses && running == other.running && present == other.present;
        }
    };

    explicit tNetworkInterfaceMonitor(QObject* parent = nullptr);

    virtual void AddInterface(const QString& name) = 0;
    virtual void RemoveAllInterfaces() = 0;
    virtual void RemoveInterface(const QString& name) = 0;

signals:
    // Not virtual: moc rejects virtual signals, and subclasses emit this one.
    void StateChanged(const QString& name, const tNetworkInterfaceMonitor::InterfaceState& state);
};

Q_DECLARE_METATYPE(tNetworkInterfaceMonitor::InterfaceState)
