#pragma once

#include "SimulatorControl.h"

#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

// One display unit as processes (tools/unit/larkd-unit.sh): larkd in a mount
// namespace of its own with the UDisks2 simulator on a private bus, recording
// stand-ins for exportfs, mount, umount and mountpoint, and the sysfs, /dev
// and slot file of the device (LARKD_UNIT_SYSFS, set by CTest). Stopped
// with SIGTERM when the object goes. With LARKD_UNIT_RESTART=1 (see
// SetEnvironment()), larkd is restarted whenever it is killed, as its
// service manager does, and Process() is the script that restarts it.
// Shared by the end-to-end tests and the bench.
class tLarkdUnit : public tSimulatorControl
{
public:
    // port 0: a free one, passed with --port; otherwise the port larkd listens
    // on by itself (in a network namespace of the test's own).
    tLarkdUnit(const QString& unitFile, const QStringList& larkdOptions, quint16 port = 0);
    ~tLarkdUnit();
    tLarkdUnit(const tLarkdUnit&) = delete;
    tLarkdUnit& operator=(const tLarkdUnit&) = delete;

    // For larkd-unit.sh and larkd (e.g. LARKD_UNIT_RESTART), before Start().
    void SetEnvironment(const QString& name, const QString& value);
    // Starts the unit and waits until the simulator serves and larkd listens.
    bool Start(QString* error);
    // SIGTERM; true when larkd then exits normally with status 0.
    bool Stop();
    // As on the device, the medium's sysfs (with LARKD_UNIT_SYSFS) is there
    // before the service hears of it.
    bool Insert(const QString& slot, const QString& medium, QString* error = nullptr);
    // Also waits (at most 1.5 s) until the service has removed the medium's
    // mount directory, as it does a moment after the medium: sooner, the same
    // medium put back would get another directory name.
    bool Remove(const QString& slot, QString* error = nullptr);

    QProcess& Process() { return m_Process; }
    quint16 Port() const { return m_Port; }
    // The stand-ins' calls of one program, each as its tab-joined arguments.
    QStringList Ran(const QString& program) const;
    // Where the stand-ins record their calls, one a line.
    QString CallsFile() const;
    // larkd's console log so far.
    QByteArray Log();
    // larkd's mount table (/proc/PID/mounts).
    QByteArray MountTable() const;
    // The running larkd's process id, which changes with each restart.
    qint64 LarkdPid() const;
    // SIGKILL to larkd; true once its restart has been started.
    bool KillAndAwaitRestart(QString* error);
    // A path as larkd sees it in its mount namespace, e.g. Inside("/run/media").
    QString Inside(const QString& path) const;

private:
    QString m_UnitFile;
    QStringList m_Options;
    QTemporaryDir m_State;
    QProcess m_Process;
    quint16 m_Port = 0;
    QString m_BusName;
    QByteArray m_Log;
};

// A port on 127.0.0.1 nobody listens on right now.
quint16 FreePort();

// A unit description with count USB sticks present at start, one vfat
// partition each, labelled VOL01, VOL02, ...
QByteArray UnitWithSticks(int count);
