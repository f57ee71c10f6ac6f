#pragma once

#include <QDBusContext>
#include <QObject>
#include <QStringList>

class tSimBus;
class tSimDevices;

// The simulator's own control interface (org.larkd.UDisks2Sim): what a person
// or a test does to the unit's hardware, and the record of what clients did.
class tSimControl : public QObject, protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.larkd.UDisks2Sim")
public:
    tSimControl(tSimDevices* devices, tSimBus* bus, QObject* parent = nullptr);

public slots:
    void Insert(const QString& slot, const QString& medium);
    void Remove(const QString& slot);
    void Unmount(const QString& node);
    void FailNextMount(const QString& message);
    // Mount or Unmount answered only after milliseconds (0: at once again).
    void Hold(const QString& method, int milliseconds);
    // The service stops (gives its name up) and starts again; media can be
    // inserted and pulled meanwhile.
    void Away();
    void Back();
    QStringList Calls() const;
    // Calls() with the moment of each line: "MILLISECONDS LINE", CLOCK_MONOTONIC.
    QStringList Timeline() const;
    QStringList Inserted() const;

private:
    void Fail(const QString& message);

    tSimDevices* m_Devices;
    tSimBus* m_Bus;
};
