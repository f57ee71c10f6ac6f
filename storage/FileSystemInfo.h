#pragma once

#include <QObject>
#include <QString>

// The descriptive side of a volume: what the display application is told
// about it and what its friendly link is called.
class tFileSystemInfo : public QObject
{
    Q_OBJECT
public:
    explicit tFileSystemInfo(QObject* parent) : QObject(parent) {}
    ~tFileSystemInfo() override = default;

    virtual QString IdType() const = 0;
    virtual QString FriendlyName() const = 0;
    virtual QString SymlinkName() const = 0;
    virtual bool ReadOnly() const = 0;
    // The card's identity (32 hex digits) or the share's name.
    virtual QString Cid() const = 0;
    virtual QString ContentId() const = 0;
    virtual QString SerialNumber() const = 0;
    virtual bool FromPeer() const = 0;
    virtual QString CodeName() const = 0;
};
