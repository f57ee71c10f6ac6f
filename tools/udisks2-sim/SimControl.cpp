#include "SimControl.h"

#include "SimBus.h"
#include "SimDevices.h"
#include "SimNames.h"

tSimControl::tSimControl(tSimDevices* devices, tSimBus* bus, QObject* parent)
    : QObject(parent)
    , m_Devices(devices)
    , m_Bus(bus)
{
}

void tSimControl::Insert(const QString& slot, const QString& medium)
{
    QString error;
    if (!m_Devices->Insert(slot, medium, &error))
        Fail(error);
}

void tSimControl::Remove(const QString& slot)
{
    QString error;
    if (!m_Devices->Remove(slot, &error))
        Fail(error);
}

void tSimControl::Unmount(const QString& node)
{
    QString error;
    if (!m_Devices->UnmountBehind(node, &error))
        Fail(error);
}

void tSimControl::FailNextMount(const QString& message)
{
    m_Devices->FailNextMount(message);
}

void tSimControl::Hold(const QString& method, int milliseconds)
{
    QString error;
    if (!m_Bus->SetHold(method, milliseconds, &error))
        Fail(error);
}

void tSimControl::Away()
{
    QString error;
    if (!m_Bus->SetAway(true, &error))
        Fail(error);
}

void tSimControl::Back()
{
    QString error;
    if (!m_Bus->SetAway(false, &error))
        Fail(error);
}

QStringList tSimControl::Calls() const
{
    return m_Devices->Calls();
}

QStringList tSimControl::Timeline() const
{
    return m_Devices->Timeline();
}

QStringList tSimControl::Inserted() const
{
    return m_Devices->Inserted();
}

void tSimControl::Fail(const QString& message)
{
    if (calledFromDBus())
        sendErrorReply(SimNames::ControlError, message);
}
