#include "SimulatorControl.h"

#include "SimNames.h"

#include <QDBusMessage>

bool tSimulatorControl::Insert(const QString& slot, const QString& medium, QString* error)
{
    return Call(QStringLiteral("Insert"), {slot, medium}, error);
}

bool tSimulatorControl::Remove(const QString& slot, QString* error)
{
    return Call(QStringLiteral("Remove"), {slot}, error);
}

bool tSimulatorControl::Unmount(const QString& node, QString* error)
{
    return Call(QStringLiteral("Unmount"), {node}, error);
}

bool tSimulatorControl::FailNextMount(const QString& message)
{
    return Call(QStringLiteral("FailNextMount"), {message});
}

bool tSimulatorControl::Hold(const QString& method, int milliseconds, QString* error)
{
    return Call(QStringLiteral("Hold"), {method, milliseconds}, error);
}

bool tSimulatorControl::Away(QString* error)
{
    return Call(QStringLiteral("Away"), {}, error);
}

bool tSimulatorControl::Back(QString* error)
{
    return Call(QStringLiteral("Back"), {}, error);
}

QStringList tSimulatorControl::Calls()
{
    QStringList lines;
    Call(QStringLiteral("Calls"), {}, nullptr, &lines);
    return lines;
}

QStringList tSimulatorControl::Timeline()
{
    QStringList lines;
    Call(QStringLiteral("Timeline"), {}, nullptr, &lines);
    return lines;
}

bool tSimulatorControl::Call(const QString& method, const QVariantList& arguments, QString* error, QStringList* lines)
{
    QDBusMessage call =
        QDBusMessage::createMethodCall(SimNames::ControlService, SimNames::ControlPath, SimNames::ControlInterface, method);
    call.setArguments(arguments);
    const QDBusMessage reply = m_Bus.call(call);
    if (reply.type() != QDBusMessage::ReplyMessage) {
        if (error)
            *error = reply.errorMessage();
        return false;
    }
    if (lines)
        *lines = reply.arguments().value(0).toStringList();
    return true;
}
