#pragma once

#include <QDBusPendingCall>
#include <QString>
#include <QVariantList>

// Calls to the UDisks2 service on the system bus. None of them waits: the
// answer comes later, on the loop, to whoever watches the pending call.
//
// Plain method calls rather than QDBusInterface: that class caches an
// interface's description per interface name and introspects synchronously.

QDBusPendingCall CallUDisks2(const QString& path, const QString& interface, const QString& method,
                             const QVariantList& arguments = {});

// The last element of an object path: the key of the registries.
QString NodeName(const QString& path);
