#pragma once

#include <QDBusMessage>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantList>

// Blocking calls to the UDisks2 service on the system bus.
//
// Plain method calls rather than QDBusInterface: that class caches an
// interface's description per interface name, so its validity would not
// say whether this particular object carries the interface.

QDBusMessage CallUDisks2(const QString& path, const QString& interface, const QString& method,
                         const QVariantList& arguments = {});

// The live value of one property; invalid when it cannot be read.
QVariant ReadUDisks2Property(const QString& path, const QString& interface, const QString& name);

// Whether the object at path carries interface, as it introspects now.
bool HasUDisks2Interface(const QString& path, const QString& interface);

// The named child nodes of path; empty when introspection fails, which ok
// (when given) tells apart from an object without children.
QStringList UDisks2ChildNodes(const QString& path, bool* ok = nullptr);

// The last element of an object path: the key of the registries.
QString NodeName(const QString& path);
