#include "SimBus.h"

#include "SimDevices.h"
#include "SimInterfaces.h"
#include "SimNames.h"

#include <QDBusMessage>
#include <QFile>
#include <QSet>
#include <QTimer>

tSimBus::tSimBus(tSimDevices* devices, const QDBusConnection& connection, QObject* parent)
    : QDBusVirtualObject(parent)
    , m_Devices(devices)
    , m_Connection(connection)
{
    connect(devices, &tSimDevices::InterfacesAdded, this, &tSimBus::OnInterfacesAdded);
    connect(devices, &tSimDevices::InterfacesRemoved, this, &tSimBus::OnInterfacesRemoved);
    connect(devices, &tSimDevices::PropertiesChanged, this, &tSimBus::OnPropertiesChanged);
    connect(devices, &tSimDevices::JobCompleted, this, &tSimBus::OnJobCompleted);
}

bool tSimBus::Register(QString* error)
{
    if (!m_Connection.registerVirtualObject(SimNames::RootPath, this, QDBusConnection::SubPath)) {
        *error = QStringLiteral("cannot export %1").arg(SimNames::RootPath);
        return false;
    }
    if (!m_Connection.registerService(SimNames::Service)) {
        *error = QStringLiteral("cannot own %1: %2").arg(SimNames::Service, m_Connection.lastError().message());
        return false;
    }
    return true;
}

bool tSimBus::SetAway(bool away, QString* error)
{
    if (away == m_Away) {
        *error = away ? QStringLiteral("the service is away already") : QStringLiteral("the service is here already");
        return false;
    }
    const bool done = away ? m_Connection.unregisterService(SimNames::Service)
                           : m_Connection.registerService(SimNames::Service);
    if (!done) {
        *error = m_Connection.lastError().message();
        return false;
    }
    m_Away = away;
    return true;
}

QString tSimBus::introspect(const QString& path) const
{
    // Only used by QtDBus when it describes a parent path; handleMessage()
    // answers Introspect calls on the tree itself.
    QString xml;
    for (const QString& interface : InterfacesOf(path))
        xml += SimInterfaces::InterfaceXml(interface);
    return xml;
}

bool tSimBus::SetHold(const QString& method, int milliseconds, QString* error)
{
    if (method != QLatin1String("Mount") && method != QLatin1String("Unmount")) {
        *error = QStringLiteral("only Mount and Unmount can be held, not \"%1\"").arg(method);
        return false;
    }
    if (milliseconds < 0) {
        *error = QStringLiteral("cannot hold for %1 ms").arg(milliseconds);
        return false;
    }
    if (milliseconds == 0)
        m_Holds.remove(method);
    else
        m_Holds.insert(method, milliseconds);
    return true;
}

bool tSimBus::handleMessage(const QDBusMessage& message, const QDBusConnection& connection)
{
    if (const int hold = HoldFor(message)) {
        AnswerLater(message, hold);
        return true;
    }
    const QDBusMessage reply = Dispatch(message);
    if (message.isReplyRequired())
        QDBusConnection(connection).send(reply);
    return true;
}

QStringList tSimBus::InterfacesOf(const QString& path) const
{
    if (path == SimNames::RootPath)
        return {SimNames::ObjectManagerInterface};
    const tInterfaceMap* object = m_Devices->Object(path);
    return object ? object->keys() : QStringList();
}

QStringList tSimBus::Children(const QString& path) const
{
    const QString prefix = path + QLatin1Char('/');
    QStringList children;
    QSet<QString> seen;
    for (const QString& object : m_Devices->Paths()) {
        if (!object.startsWith(prefix))
            continue;
        const QString child = object.mid(prefix.size()).section(QLatin1Char('/'), 0, 0);
        if (!seen.contains(child)) {
            seen.insert(child);
            children << child;
        }
    }
    return children;
}

QDBusMessage tSimBus::Dispatch(const QDBusMessage& message) const
{
    const QString path = message.path();
    const QString interface = message.interface();
    const QString member = message.member();
    const QStringList interfaces = InterfacesOf(path);
    const QStringList children = Children(path);
    if (interfaces.isEmpty() && children.isEmpty())
        return message.createErrorReply(SimNames::ErrorUnknownMethod,
                                        QStringLiteral("No such interface “%1” on object at path %2").arg(interface, path));

    if (interface == SimNames::IntrospectableInterface && member == QLatin1String("Introspect"))
        return message.createReply(SimInterfaces::IntrospectXml(interfaces, children));
    if (interface == SimNames::PeerInterface && member == QLatin1String("Ping"))
        return message.createReply();
    if (interface == SimNames::PeerInterface && member == QLatin1String("GetMachineId")) {
        QFile file(QStringLiteral("/etc/machine-id"));
        file.open(QIODevice::ReadOnly);
        return message.createReply(QString::fromLatin1(file.readAll().trimmed()));
    }

    const tInterfaceMap* object = m_Devices->Object(path);
    const tInterfaceMap properties = object ? *object : tInterfaceMap{{SimNames::ObjectManagerInterface, {}}};
    if (interface == SimNames::PropertiesInterface && !interfaces.isEmpty())
        return Properties(message, properties);
    if (path == SimNames::RootPath && interface == SimNames::ObjectManagerInterface && member == QLatin1String("GetManagedObjects"))
        return message.createReply(QVariant::fromValue(m_Devices->ManagedObjects()));
    const bool filesystem = interfaces.contains(SimNames::FilesystemInterface);
    if (filesystem && (interface == SimNames::FilesystemInterface || interface.isEmpty())
        && (member == QLatin1String("Mount") || member == QLatin1String("Unmount")))
        return Filesystem(message);
    if (!interface.isEmpty() && !interfaces.contains(interface) && interface != SimNames::PropertiesInterface)
        return message.createErrorReply(SimNames::ErrorUnknownMethod,
                                        QStringLiteral("No such interface “%1” on object at path %2").arg(interface, path));
    return message.createErrorReply(SimNames::ErrorUnknownMethod,
                                    QStringLiteral("No such method “%1”").arg(member));
}

QDBusMessage tSimBus::Properties(const QDBusMessage& message, const tInterfaceMap& interfaces) const
{
    const QList<QVariant> args = message.arguments();
    const QString member = message.member();
    const QString interface = args.value(0).toString();
    const auto found = interfaces.constFind(interface);
    if (member == QLatin1String("GetAll") && message.signature() == QLatin1String("s")) {
        if (found == interfaces.constEnd())
            return message.createErrorReply(SimNames::ErrorInvalidArgs, QStringLiteral("No such interface “%1”").arg(interface));
        return message.createReply(QVariant::fromValue(*found));
    }
    if (member == QLatin1String("Get") && message.signature() == QLatin1String("ss")) {
        const QString name = args.value(1).toString();
        if (found == interfaces.constEnd() || !found->contains(name))
            return message.createErrorReply(SimNames::ErrorInvalidArgs, QStringLiteral("No such property “%1”").arg(name));
        return message.createReply(QVariant::fromValue(QDBusVariant(found->value(name))));
    }
    if (member == QLatin1String("Set") && message.signature() == QLatin1String("ssv"))
        return message.createErrorReply(SimNames::ErrorInvalidArgs,
                                        QStringLiteral("Property “%1” is not writable").arg(args.value(1).toString()));
    return message.createErrorReply(SimNames::ErrorUnknownMethod,
                                    QStringLiteral("No such method “%1” with signature “%2”").arg(member, message.signature()));
}

QDBusMessage tSimBus::Filesystem(const QDBusMessage& message) const
{
    if (message.signature() != QLatin1String("a{sv}"))
        return message.createErrorReply(SimNames::ErrorInvalidArgs,
                                        QStringLiteral("Type of message, “(%1)”, does not match expected type “(a{sv})”")
                                            .arg(message.signature()));
    const QVariantMap options = qdbus_cast<QVariantMap>(message.arguments().constFirst());
    tSimDevices::tError error;
    if (message.member() == QLatin1String("Mount")) {
        QString mountPath;
        if (m_Devices->Mount(message.path(), options, &mountPath, &error))
            return message.createReply(mountPath);
    } else if (m_Devices->Unmount(message.path(), options, &error)) {
        return message.createReply();
    }
    return message.createErrorReply(error.name, error.message);
}

int tSimBus::HoldFor(const QDBusMessage& message) const
{
    const auto hold = m_Holds.constFind(message.member());
    if (hold == m_Holds.constEnd())
        return 0;
    // Only calls that reach the service's handler wait; a malformed one is
    // refused by the bus library at once.
    const tInterfaceMap* object = m_Devices->Object(message.path());
    const bool handled = object && object->contains(SimNames::FilesystemInterface)
                         && (message.interface() == SimNames::FilesystemInterface || message.interface().isEmpty())
                         && message.signature() == QLatin1String("a{sv}");
    return handled ? *hold : 0;
}

void tSimBus::AnswerLater(const QDBusMessage& message, int milliseconds)
{
    const tSimDevices::tHeldCall call =
        m_Devices->Hold(message.path(), message.member(), qdbus_cast<QVariantMap>(message.arguments().constFirst()));
    // A precise timer: a coarse one may fire up to 5 % early.
    QTimer::singleShot(milliseconds, Qt::PreciseTimer, this, [this, message, call] {
        QString mountPath;
        tSimDevices::tError error;
        const QDBusMessage reply = m_Devices->Answer(call, &mountPath, &error)
                                       ? (call.method == QLatin1String("Mount") ? message.createReply(mountPath) : message.createReply())
                                       : message.createErrorReply(error.name, error.message);
        if (message.isReplyRequired())
            m_Connection.send(reply);
    });
}

void tSimBus::OnInterfacesAdded(const QString& path, const tInterfaceMap& interfaces)
{
    // A service that is not running tells nobody anything.
    if (m_Away)
        return;
    QDBusMessage signal = QDBusMessage::createSignal(SimNames::RootPath, SimNames::ObjectManagerInterface,
                                                     QStringLiteral("InterfacesAdded"));
    signal << QVariant::fromValue(QDBusObjectPath(path)) << QVariant::fromValue(interfaces);
    m_Connection.send(signal);
}

void tSimBus::OnInterfacesRemoved(const QString& path, const QStringList& interfaces)
{
    if (m_Away)
        return;
    QDBusMessage signal = QDBusMessage::createSignal(SimNames::RootPath, SimNames::ObjectManagerInterface,
                                                     QStringLiteral("InterfacesRemoved"));
    signal << QVariant::fromValue(QDBusObjectPath(path)) << interfaces;
    m_Connection.send(signal);
}

void tSimBus::OnPropertiesChanged(const QString& path, const QString& interface, const QVariantMap& changed)
{
    if (m_Away)
        return;
    QDBusMessage signal = QDBusMessage::createSignal(path, SimNames::PropertiesInterface, QStringLiteral("PropertiesChanged"));
    signal << interface << changed << QStringList();
    m_Connection.send(signal);
}

void tSimBus::OnJobCompleted(const QString& path, bool success, const QString& message)
{
    if (m_Away)
        return;
    QDBusMessage signal = QDBusMessage::createSignal(path, SimNames::JobInterface, QStringLiteral("Completed"));
    signal << success << message;
    m_Connection.send(signal);
}
