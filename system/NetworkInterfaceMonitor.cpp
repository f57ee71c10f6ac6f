#include "system/NetworkInterfaceMonitor.h"

tNetworkInterfaceMonitor::tNetworkInterfaceMonitor(QObject* parent)
    : QObject(parent)
{
    qRegisterMetaType<tNetworkInterfaceMonitor::InterfaceState>("tNetworkInterfaceMonitor::InterfaceState");
}
