#pragma once

#include "daemon/DaemonConfig.h"

#include <QObject>

class tUnixSignalNotifier;

// The daemon's central object: owns every long-lived part and reacts to
// their events on the one event-loop thread.
class tLarkDaemon : public QObject
{
    Q_OBJECT
public:
    explicit tLarkDaemon(const tDaemonConfig& config, QObject* parent = nullptr);
    ~tLarkDaemon() override;

private slots:
    void SignalHandler(int sigNum);

private:
    tUnixSignalNotifier* m_SignalNotifier = nullptr;
};
