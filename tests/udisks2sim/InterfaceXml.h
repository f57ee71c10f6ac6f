#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QMap>
#include <QStringList>
#include <QXmlStreamReader>

// An object's introspection data as comparable text.
struct tIntrospection
{
    // interface -> member ("property Size", "method Mount") -> its types
    QMap<QString, QMap<QString, QString>> interfaces;
    QStringList children;
};

inline tIntrospection Introspect(QDBusConnection bus, const QString& path)
{
    const QDBusMessage reply = bus.call(QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.UDisks2"), path,
                                                                       QStringLiteral("org.freedesktop.DBus.Introspectable"),
                                                                       QStringLiteral("Introspect")));
    tIntrospection result;
    QXmlStreamReader xml(reply.arguments().value(0).toString());
    QString interface, member;
    int depth = 0;
    while (!xml.atEnd()) {
        const auto token = xml.readNext();
        if (token == QXmlStreamReader::EndElement)
            --depth;
        if (token != QXmlStreamReader::StartElement)
            continue;
        ++depth;
        const auto name = xml.name();
        const auto attributes = xml.attributes();
        if (name == QLatin1String("node") && depth == 2)
            result.children << attributes.value(QLatin1String("name")).toString();
        else if (name == QLatin1String("interface"))
            interface = attributes.value(QLatin1String("name")).toString(), result.interfaces[interface];
        else if (name == QLatin1String("property"))
            result.interfaces[interface].insert(QStringLiteral("property ") + attributes.value(QLatin1String("name")),
                                                attributes.value(QLatin1String("type")) + QLatin1Char(' ')
                                                    + attributes.value(QLatin1String("access")));
        else if (name == QLatin1String("method") || name == QLatin1String("signal")) {
            member = name + QLatin1Char(' ') + attributes.value(QLatin1String("name"));
            result.interfaces[interface].insert(member, QString());
        } else if (name == QLatin1String("arg"))
            result.interfaces[interface][member] += QStringLiteral("%1:%2:%3 ").arg(attributes.value(QLatin1String("direction")).toString(),
                                                                                 attributes.value(QLatin1String("type")).toString(),
                                                                                 attributes.value(QLatin1String("name")).toString());
    }
    return result;
}
