#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

class tUDisks2FileSystem;

// Mirror of one UDisks2 block object. Owns the filesystem proxy of the block
// and decides when its volume counts as ejected.
class tUDisks2Block : public QObject
{
    Q_OBJECT
public:
    tUDisks2Block(const QString& node, QObject* parent);
    ~tUDisks2Block() override;

    // Takes every property from the registry's copy of the service's objects.
    void Update();

    tUDisks2FileSystem* FileSystem() const;
    bool HintSystem() const;
    // Cached at the last Update(): the device node without its NUL, and the
    // drive's node name (empty when the block has no drive).
    QString Device() const;
    QString DriveName() const;
    // A property of the Block interface as the service last reported it.
    QVariant Property(const QString& name) const;

    // Creates the filesystem proxy if the drive's bus says what kind of
    // volume it is, and announces a valid filesystem.
    void AddFilesystem();
    void RemoveFilesystem();
    // With a fresh copy of the service's objects (after it was away, say):
    // removes the filesystem if it went, holds another medium, or was
    // unmounted meanwhile.
    void Resynchronise();
    // Takes ownership of fileSystem, deleting a different previous one.
    void SetFileSystem(tUDisks2FileSystem* fileSystem);

    // The registry passes the service's changes on, in the cache's plain values.
    void OnPropertiesChanged(const QString& interface, const QVariantMap& changedProp,
                             const QStringList& invalidatedProp);

signals:
    void Changed(const QString& node);
    void FileSystemAdded(const QString& node);
    void FileSystemRemoved(const QString& node);
    void FileSystemChanged(const QString& node);
    void Ejected(const QString& node);

private:
    bool IsMounted() const;

    QString m_Path;
    tUDisks2FileSystem* m_FileSystem = nullptr;
    QString m_Name;
    QString m_Device;
    QString m_Id;
    QString m_Drive;
    quint64 m_Size = 0;
    bool m_ReadOnly = false;
    QString m_Usage;
    QString m_Type;
    bool m_System = false;
};
