#include "udisks2/UDisks2Bus.h"

#include "udisks2/UDisks2Names.h"

#include <QDBusConnection>
#include <QDBusMessage>

QDBusPendingCall CallUDisks2(const QString& path, const QString& interface, const QString& method,
                             const QVariantList& arguments)
{
    QDBusConnection bus = QDBusConnection::systemBus();
    // Answered at once, as a failure, where there is no bus: a call that is
    // never answered would leave its watcher waiting forever.
    if (!bus.isConnected())
        return QDBusPendingCall::fromError(bus.lastError());
    QDBusMessage call = QDBusMessage::createMethodCall(UDisks2Names::Service, path, interface, method);
    call.setArguments(arguments);
    return bus.asyncCall(call);
}

QString NodeName(const QString& path)
{
    return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
}
