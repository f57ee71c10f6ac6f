#include "udisks2/UDisks2Bus.h"

#include "udisks2/UDisks2Names.h"

#include <QDBusConnection>
#include <QDBusVariant>
#include <QXmlStreamReader>

QDBusMessage CallUDisks2(const QString& path, const QString& interface, const QString& method,
                         const QVariantList& arguments)
{
    QDBusMessage call = QDBusMessage::createMethodCall(UDisks2Names::Service, path, interface, method);
    call.setArguments(arguments);
    return QDBusConnection::systemBus().call(call);
}

QVariant ReadUDisks2Property(const QString& path, const QString& interface, const QString& name)
{
    const QDBusMessage reply =
        CallUDisks2(path, UDisks2Names::PropertiesInterface, UDisks2Names::GetMethod, { interface, name });
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return QVariant();
    return reply.arguments().first().value<QDBusVariant>().variant();
}

namespace {

QString Introspect(const QString& path, bool* ok)
{
    const QDBusMessage reply =
        CallUDisks2(path, UDisks2Names::IntrospectableInterface, UDisks2Names::IntrospectMethod);
    *ok = reply.type() == QDBusMessage::ReplyMessage && !reply.arguments().isEmpty();
    return *ok ? reply.arguments().first().toString() : QString();
}

// The "name" attributes of the elements called element, in document order.
QStringList NamesOf(const QString& xml, const QString& element)
{
    QStringList names;
    QXmlStreamReader reader(xml);
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement() && reader.name() == element) {
            const QString name = reader.attributes().value(QStringLiteral("name")).toString();
            if (!name.isEmpty())
                names.append(name);
        }
    }
    return names;
}

} // namespace

bool HasUDisks2Interface(const QString& path, const QString& interface)
{
    bool ok = false;
    const QString xml = Introspect(path, &ok);
    return ok && NamesOf(xml, QStringLiteral("interface")).contains(interface);
}

QStringList UDisks2ChildNodes(const QString& path, bool* ok)
{
    bool answered = false;
    const QString xml = Introspect(path, &answered);
    if (ok)
        *ok = answered;
    return answered ? NamesOf(xml, QStringLiteral("node")) : QStringList();
}

QString NodeName(const QString& path)
{
    return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
}
