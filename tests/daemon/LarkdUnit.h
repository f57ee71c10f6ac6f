#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTcpSocket>
#include <QTemporaryDir>

// One display unit as processes (tools/unit/larkd-unit.sh): larkd in a
// mount namespace of its own with the UDisks2 simulator on a private bus and
// recording stand-ins for exportfs, mount, umount and mountpoint. Stopped
// with SIGTERM when the object goes. With LARKD_UNIT_RESTART=1 in the
// environment at Start(), larkd is restarted whenever it is killed, as its
// service manager does, and Process() is the script that restarts it.
class tLarkdUnit
{
public:
    tLarkdUnit(const QString& unitFile, const QStringList& larkdOptions);
    ~tLarkdUnit();
    tLarkdUnit(const tLarkdUnit&) = delete;
    tLarkdUnit& operator=(const tLarkdUnit&) = delete;

    // Starts the unit and waits until the simulator serves and larkd listens.
    bool Start(QString* error);
    // SIGTERM; true when larkd then exits normally with status 0.
    bool Stop();

    QProcess& Process() { return m_Process; }
    quint16 Port() const { return m_Port; }
    QString Unit() const { return m_UnitFile; }

    bool Insert(const QString& slot, const QString& medium, QString* error = nullptr);
    bool Remove(const QString& slot, QString* error = nullptr);
    // Unmounts behind larkd's back, as another program would.
    bool UnmountBehind(const QString& node, QString* error = nullptr);
    // The service gives its bus name up, and takes it again as if restarted.
    bool ServiceAway(QString* error = nullptr);
    bool ServiceBack(QString* error = nullptr);
    // The service answers each later call of method ("Mount", "Unmount") only
    // after ms milliseconds, as for a slow card; 0 ends that.
    bool Hold(const QString& method, int ms, QString* error = nullptr);
    // The simulator's own record: "Mount NODE PATH OPTIONS...", "Unmount NODE", ...
    QStringList SimulatorCalls();

    // The stand-ins' calls of one program, each as its tab-joined arguments.
    QStringList Calls(const QString& program) const;
    // larkd's console log so far (debug lines of "lk.daemon" included).
    QByteArray Log();
    // Waits until larkd has seen the service report node's mount point, and
    // so has handled every earlier event about it.
    bool WaitForMountPoint(const QString& node, int timeoutMs = 10000);
    // larkd's mount table (/proc/PID/mounts).
    QByteArray MountTable() const;
    // The running larkd's process id, which changes with each restart.
    qint64 LarkdPid() const;
    // SIGKILL to larkd; true once its restart has been started.
    bool KillAndAwaitRestart(QString* error);
    // A path as larkd sees it in its mount namespace, e.g. Inside("/run/media").
    QString Inside(const QString& path) const;

private:
    bool Control(const QString& method, const QVariantList& arguments, QString* error);

    QString m_UnitFile;
    QStringList m_Options;
    QTemporaryDir m_State;
    QProcess m_Process;
    quint16 m_Port = 0;
    QString m_BusName;
    QByteArray m_Log;
};

// The display application's end of the protocol: one TCP connection that
// splits what arrives at NUL bytes.
class tAppConnection
{
public:
    bool Connect(quint16 port);
    // Connects as soon as something listens on port: before larkd's start-up
    // scan is done, the connection waits in the listen queue.
    bool ConnectWhenListening(quint16 port, int timeoutMs = 20000);
    // Sends the bytes as they are (the caller adds the NULs).
    void SendRaw(const QByteArray& bytes);
    void Send(const QJsonObject& message);
    // The "dataarrival" objects received so far and not yet taken.
    QList<QJsonObject> Arrivals();
    // Waits up to timeoutMs until at least count arrivals are there, then takes them all.
    QList<QJsonObject> TakeArrivals(int count, int timeoutMs = 10000);
    // Every complete document received so far, raw, taken.
    QList<QByteArray> TakeDocuments();
    QTcpSocket& Socket() { return m_Socket; }

private:
    void Read();

    QTcpSocket m_Socket;
    QByteArray m_Pending;
    QList<QByteArray> m_Documents;
};

// The envelope of an application request.
QJsonObject AppRequest(const QString& type, const QJsonValue& content = QJsonValue::Undefined);
