#pragma once

#include <QDBusConnection>
#include <QStringList>
#include <QVariantList>

// The UDisks2 simulator's control interface: a test's hands on a simulated
// unit. Each call returns false, with the simulator's message, on refusal.
class tSimulatorControl
{
public:
    bool Insert(const QString& slot, const QString& medium, QString* error = nullptr)
    {
        return Call(QStringLiteral("Insert"), {slot, medium}, error);
    }
    bool Remove(const QString& slot, QString* error = nullptr) { return Call(QStringLiteral("Remove"), {slot}, error); }
    // Unmounts behind the client's back, as another program would.
    bool Unmount(const QString& node, QString* error = nullptr) { return Call(QStringLiteral("Unmount"), {node}, error); }
    bool FailNextMount(const QString& message = QString()) { return Call(QStringLiteral("FailNextMount"), {message}); }
    // Mount or Unmount calls are answered only that much later, as by a slow
    // card (0: at once again); each is recorded as "Mount-held NODE..." on arrival.
    bool Hold(const QString& method, int milliseconds, QString* error = nullptr)
    {
        return Call(QStringLiteral("Hold"), {method, milliseconds}, error);
    }
    // The service gives its bus name up, and takes it again as if restarted.
    bool Away(QString* error = nullptr) { return Call(QStringLiteral("Away"), {}, error); }
    bool Back(QString* error = nullptr) { return Call(QStringLiteral("Back"), {}, error); }
    // The simulator's record: "Mount NODE PATH OPTIONS...", "Unmount NODE", ...
    QStringList Calls() { return Lines(QStringLiteral("Calls")); }
    // The same record, each line after its CLOCK_MONOTONIC milliseconds.
    QStringList Timeline() { return Lines(QStringLiteral("Timeline")); }

    // Any control method; lines gets an answer that is a list of strings.
    bool Call(const QString& method, const QVariantList& arguments, QString* error = nullptr,
              QStringList* lines = nullptr);

protected:
    // The bus the simulator serves on; until then every call fails.
    void SetControlBus(const QDBusConnection& bus) { m_Bus = bus; }

private:
    QStringList Lines(const QString& method)
    {
        QStringList lines;
        Call(method, {}, nullptr, &lines);
        return lines;
    }

    QDBusConnection m_Bus{QString()};
};
