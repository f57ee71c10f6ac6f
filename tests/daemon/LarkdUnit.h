#pragma once

#include "AppClient.h"
#include "SimulatorControl.h"

#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

// One display unit as processes (tools/unit/larkd-unit.sh): larkd in a mount
// namespace of its own with the UDisks2 simulator on a private bus, recording
// stand-ins for exportfs, mount, umount and mountpoint, and the sysfs, /dev
// and slot file of the device (LARKD_UNIT_SYSFS, set by CTest). Stopped
// with SIGTERM when the object goes. With LARKD_UNIT_RESTART=1 in the
// environment at Start(), larkd is restarted whenever it is killed, as its
// service manager does, and Process() is the script that restarts it.
class tLarkdUnit : public tSimulatorControl
{
public:
    // port 0: a free one, passed with --port; otherwise the port larkd listens
    // on by itself (in a network namespace of the test's own).
    tLarkdUnit(const QString& unitFile, const QStringList& larkdOptions, quint16 port = 0);
    ~tLarkdUnit();
    tLarkdUnit(const tLarkdUnit&) = delete;
    tLarkdUnit& operator=(const tLarkdUnit&) = delete;

    // Starts the unit and waits until the simulator serves and larkd listens.
    bool Start(QString* error);
    // SIGTERM; true when larkd then exits normally with status 0.
    bool Stop();
    // As on the device, the medium's sysfs is there before the service hears of it.
    bool Insert(const QString& slot, const QString& medium, QString* error = nullptr);
    // Also waits (at most 1.5 s) until the service has removed the medium's
    // mount directory, as it does a moment after the medium: sooner, the same
    // medium put back would get another directory name.
    bool Remove(const QString& slot, QString* error = nullptr);

    QProcess& Process() { return m_Process; }
    quint16 Port() const { return m_Port; }
    // The stand-ins' calls of one program, each as its tab-joined arguments.
    QStringList Ran(const QString& program) const;
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

// The display application: the client's connection, keeping what arrives.
class tAppConnection
{
public:
    tAppConnection();
    // Connects as soon as something listens on port: before larkd's start-up
    // scan is done, the connection waits in the listen queue.
    bool Connect(quint16 port, int timeoutMs = 20000);
    // Sends the bytes as they are (the caller adds the NULs).
    void SendRaw(const QByteArray& bytes);
    void Send(const QJsonObject& message);
    // Waits up to timeoutMs until at least count documents are there, then
    // takes them all.
    QList<QByteArray> TakeDocuments(int count = 0, int timeoutMs = 10000);
    // The same for "dataarrival" objects.
    QList<QJsonObject> TakeArrivals(int count, int timeoutMs = 10000);
    QTcpSocket& Socket() { return *m_Client.Socket(); }

private:
    tAppClient m_Client;
    QList<QByteArray> m_Documents;
};

// units/e2e-unit.json: SD slots "left" and "right" are configured; "extra" is
// not, so its cards fall back to the first slot's link name.
QString E2eUnitFile();

// The paths reported, sorted, each after "+" for an arrival or "-" for a removal.
QStringList Reported(const QList<QJsonObject>& arrivals);

// The envelope of an application request.
QJsonObject AppRequest(const QString& type, const QJsonValue& content = QJsonValue::Undefined);
