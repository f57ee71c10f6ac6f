#include "SimulatorControl.h"

#include "SimNames.h"

#include <QDBusMessage>

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
