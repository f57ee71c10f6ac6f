#pragma once

#include "SimTypes.h"
#include "UnitDescription.h"

#include <QObject>
#include <QStringList>

// The simulated service's object model and behaviour, without the bus: every
// object's interfaces and properties, insertion and removal of media, and the
// Filesystem methods. Each change is announced by a signal in the order the
// real service sends it on the bus.
class tSimDevices : public QObject
{
    Q_OBJECT
public:
    struct tError
    {
        QString name;
        QString message;
    };

    tSimDevices(const tUnitDescription& unit, const QString& mountBase, QObject* parent = nullptr);

    // Creates what exists at start: the manager, the card readers and the
    // media the unit lists as present.
    bool Start(QString* error);

    const tInterfaceMap* Object(const QString& path) const;
    QStringList Paths() const { return m_Objects.keys(); }
    tManagedObjects ManagedObjects() const;

    bool Insert(const QString& slot, const QString& medium, QString* error);
    bool Remove(const QString& slot, QString* error);
    // Unmounts as someone else on the machine would, behind the clients' backs.
    bool UnmountBehind(const QString& node, QString* error);
    // The next Mount call fails with org.freedesktop.UDisks2.Error.Failed.
    void FailNextMount(const QString& message);
    // What happened, one line each: "Mount NODE PATH KEY=VALUE...", "Unmount NODE", ...
    QStringList Calls() const { return m_Calls; }
    // The same lines, each after the moment it happened: CLOCK_MONOTONIC in
    // milliseconds (three decimals), comparable across processes.
    QStringList Timeline() const;
    // "SLOT MEDIUM" for each filled slot.
    QStringList Inserted() const;

    // The Filesystem methods, for an object that has that interface.
    bool Mount(const QString& path, const QVariantMap& options, QString* mountPath, tError* error);
    bool Unmount(const QString& path, const QVariantMap& options, tError* error);

    // A Filesystem call whose answer the service gives later, as a slow one
    // does: recorded on arrival ("Mount-held NODE OPTIONS..."); Answer() then
    // does what the call asks, unless the object went meanwhile.
    struct tHeldCall
    {
        QString path;
        QString method;
        QVariantMap options;
        quint64 incarnation = 0;
        QString device;
        QString directory;   // where a Mount would have gone at arrival
    };
    tHeldCall Hold(const QString& path, const QString& method, const QVariantMap& options);
    bool Answer(const tHeldCall& call, QString* mountPath, tError* error);

signals:
    void InterfacesAdded(const QString& path, const tInterfaceMap& interfaces);
    void InterfacesRemoved(const QString& path, const QStringList& interfaces);
    void PropertiesChanged(const QString& path, const QString& interface, const QVariantMap& changed);
    void JobCompleted(const QString& path, bool success, const QString& message);

private:
    void AddInterfaces(const QString& path, const tInterfaceMap& interfaces);
    void RemoveObject(const QString& path);
    void RemoveInterfaces(const QString& path, const QStringList& interfaces);
    void SetProperties(const QString& path, const QString& interface, const QVariantMap& changed);

    QVariantMap DriveProperties(const tUnitSlot& slot, const tUnitMedium* medium) const;
    QVariantMap DiskProperties(const tUnitSlot& slot, const tUnitMedium* medium) const;
    QVariantMap PartitionTableProperties(const tUnitSlot& slot, const tUnitMedium& medium) const;
    tInterfaceMap PartitionInterfaces(const tUnitSlot& slot, const tUnitMedium& medium, int index) const;
    QString DrivePath(const tUnitSlot& slot, const tUnitMedium* medium) const;
    QString MountDirectory(const QVariantMap& filesystemBlock) const;
    QStringList MountPoints(const QString& path) const;
    void ForgetMounts(const QString& path);
    void CleanUp(const QStringList& directories);
    // at: when it happened (CLOCK_MONOTONIC ns), if not now.
    void Record(const QString& line, qint64 at = 0);

    tUnitDescription m_Unit;
    QString m_MountBase;
    QMap<QString, tInterfaceMap> m_Objects;
    QMap<QString, QString> m_Inserted;   // slot name to medium name
    QMap<QString, QString> m_Drives;     // slot name to drive path, while it has one
    bool m_Starting = true;
    bool m_FailNextMount = false;
    QString m_FailMessage;
    QStringList m_Calls;
    QList<qint64> m_CallTimes;   // CLOCK_MONOTONIC in ns, one per line of m_Calls
    // Each Filesystem interface gets a new number when it appears, so that a
    // held call can tell its object from one that went and came back.
    QMap<QString, quint64> m_Incarnations;
    quint64 m_NextIncarnation = 0;
    int m_NextJob = 0;
};
