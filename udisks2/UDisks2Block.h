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

    // Re-reads every cached property from the service.
    void Update();

    tUDisks2FileSystem* FileSystem() const;
    bool HintSystem() const;
    // Cached at the last Update(): the device node without its NUL, and the
    // drive's node name (empty when the block has no drive).
    QString Device() const;
    QString DriveName() const;
    // The live value of a property of the Block interface, read at each call.
    QVariant Property(const QString& name) const;

    // Creates the filesystem proxy if the drive's bus says what kind of
    // volume it is, and announces a valid filesystem.
    void AddFilesystem();
    void RemoveFilesystem();
    // After the service was away: removes the filesystem if it went, holds
    // another medium, or was unmounted meanwhile.
    void Resynchronise();
    // Takes ownership of fileSystem, deleting a different previous one.
    void SetFileSystem(tUDisks2FileSystem* fileSystem);

signals:
    void Changed(const QString& node);
    void FileSystemAdded(const QString& node);
    void FileSystemRemoved(const QString& node);
    void FileSystemChanged(const QString& node);
    void Ejected(const QString& node);

public slots:
    void OnPropertiesChanged(const QString& interface, const QVariantMap& changedProp,
                             const QStringList& invalidatedProp);

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
