#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

// Introspection data of the interfaces the simulator serves, with the member
// names, argument names and types of the real service. Only members the
// simulator implements are listed.
namespace SimInterfaces
{
// The <interface> element of one interface; empty for an unknown name.
QString InterfaceXml(const QString& interface);

// Property name to D-Bus signature, read back from InterfaceXml().
QMap<QString, QString> PropertySignatures(const QString& interface);

// Complete Introspect reply for an object with these interfaces and children.
QString IntrospectXml(const QStringList& interfaces, const QStringList& children);
}
