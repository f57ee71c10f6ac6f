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
    // The live value of a property of the Drive interface, read at each call.
    QVariant Property(const QString& name) const;

signals:
    void Changed(const QString& node);

public slots:
    void OnPropertiesChanged(const QString& interface, const QVariantMap& changed,
                             const QStringList& invalidated);

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
