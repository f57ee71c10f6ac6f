#include "udisks2/UDisks2Objects.h"

#include "udisks2/UDisks2Text.h"

#include <QDBusArgument>
#include <QDBusMetaType>

void tUDisks2Objects::RegisterTypes()
{
    qDBusRegisterMetaType<tUDisks2Interfaces>();
    qDBusRegisterMetaType<tUDisks2ManagedObjects>();
}

QVariant tUDisks2Objects::Plain(const QVariant& value)
{
    if (value.userType() != qMetaTypeId<QDBusArgument>())
        return value;
    const QDBusArgument argument = value.value<QDBusArgument>();
    // Only arrays of byte strings (mount points, symlinks) are read.
    if (argument.currentSignature() != QLatin1String("aay"))
        return QVariant();
    QStringList texts;
    argument.beginArray();
    while (!argument.atEnd()) {
        QByteArray bytes;
        argument >> bytes;
        texts.append(TextUpToNul(bytes));
    }
    argument.endArray();
    return texts;
}

QVariantMap tUDisks2Objects::Plain(const QVariantMap& properties)
{
    QVariantMap plain;
    for (auto it = properties.cbegin(); it != properties.cend(); ++it) {
        const QVariant value = Plain(it.value());
        if (value.isValid())
            plain.insert(it.key(), value);
    }
    return plain;
}

void tUDisks2Objects::Reset(const tUDisks2ManagedObjects& objects)
{
    m_Objects.clear();
    for (auto it = objects.cbegin(); it != objects.cend(); ++it)
        Add(it.key().path(), it.value());
}

void tUDisks2Objects::Add(const QString& path, const tUDisks2Interfaces& interfaces)
{
    tUDisks2Interfaces& object = m_Objects[path];
    for (auto it = interfaces.cbegin(); it != interfaces.cend(); ++it)
        object.insert(it.key(), Plain(it.value()));
}

void tUDisks2Objects::Remove(const QString& path, const QStringList& interfaces)
{
    const auto object = m_Objects.find(path);
    if (object == m_Objects.end())
        return;
    for (const QString& interface : interfaces)
        object->remove(interface);
    if (object->isEmpty())
        m_Objects.erase(object);
}

void tUDisks2Objects::Change(const QString& path, const QString& interface, const QVariantMap& changed)
{
    const auto object = m_Objects.find(path);
    if (object == m_Objects.end())
        return;
    const auto properties = object->find(interface);
    if (properties == object->end())
        return;
    for (auto it = changed.cbegin(); it != changed.cend(); ++it) {
        const QVariant value = Plain(it.value());
        if (value.isValid())
            properties->insert(it.key(), value);
        else
            properties->remove(it.key());
    }
}

void tUDisks2Objects::Set(const QString& path, const QString& interface, const QString& name,
                          const QVariant& value)
{
    Change(path, interface, {{name, value}});
}

bool tUDisks2Objects::Has(const QString& path, const QString& interface) const
{
    return m_Objects.value(path).contains(interface);
}

QVariant tUDisks2Objects::Property(const QString& path, const QString& interface, const QString& name) const
{
    const auto object = m_Objects.constFind(path);
    if (object == m_Objects.cend())
        return QVariant();
    return object->value(interface).value(name);
}

QStringList tUDisks2Objects::Children(const QString& parent) const
{
    const QString prefix = parent + QLatin1Char('/');
    QStringList names;
    for (auto it = m_Objects.lowerBound(prefix); it != m_Objects.cend() && it.key().startsWith(prefix); ++it) {
        const QString name = it.key().mid(prefix.size());
        if (!name.contains(QLatin1Char('/')))
            names.append(name);
    }
    return names;
}
