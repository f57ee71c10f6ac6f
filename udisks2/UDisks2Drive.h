#pragma once

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

// Mirror of one UDisks2 drive object.
class tUDisks2Drive : public QObject
{
    Q_OBJECT
public:
    tUDisks2Drive(const QString& node, QObject* parent);

    void Update();
    // A property of the Drive interface as the service last reported it.
    QVariant Property(const QString& name) const;

    // The registry passes the service's changes on.
    void OnPropertiesChanged(const QString& interface, const QVariantMap& changed,
                             const QStringList& invalidated);

signals:
    void Changed(const QString& node);

private:
    QString m_Path;
    QString m_Name;
    quint64 m_Size = 0;
    QString m_Vendor;
    QString m_Model;
    QString m_Serial;
    QString m_Id;
    QString m_Media;
    bool m_Optical = false;
    bool m_MediaRemovable = false;
    bool m_MediaAvailable = false;
};
