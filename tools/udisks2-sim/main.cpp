#include "SimBus.h"
#include "SimControl.h"
#include "SimDevices.h"
#include "SimNames.h"
#include "SimTypes.h"
#include "UnitDescription.h"
#include "system/UnixSignalNotifier.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>
#include <QTextStream>

namespace
{
const char* const ControlUsage =
    "usage: udisks2-sim ctl COMMAND [ARG...]\n"
    "  insert SLOT MEDIUM        put a medium of the unit description into a slot\n"
    "  remove SLOT               pull the medium out of a slot\n"
    "  unmount NODE              unmount a block (e.g. mmcblk0p1) behind the clients' backs\n"
    "  fail-next-mount [MESSAGE] make the next Mount call fail\n"
    "  hold METHOD MILLISECONDS  answer Mount or Unmount calls that much later (0: at once)\n"
    "  away                      stop serving: give the service name up, keeping every object\n"
    "  back                      serve again, as a restarted service would\n"
    "  calls                     print the record of what happened\n"
    "  timeline                  the same, each line after its CLOCK_MONOTONIC milliseconds\n"
    "  inserted                  print the filled slots\n";

// The control front end: one call to a running simulator on the system bus.
int Control(const QStringList& args)
{
    QTextStream out(stdout), err(stderr);
    static const QMap<QString, QPair<QString, int>> commands{
        {QStringLiteral("insert"), {QStringLiteral("Insert"), 2}},
        {QStringLiteral("remove"), {QStringLiteral("Remove"), 1}},
        {QStringLiteral("unmount"), {QStringLiteral("Unmount"), 1}},
        {QStringLiteral("fail-next-mount"), {QStringLiteral("FailNextMount"), 1}},
        {QStringLiteral("hold"), {QStringLiteral("Hold"), 2}},
        {QStringLiteral("away"), {QStringLiteral("Away"), 0}},
        {QStringLiteral("back"), {QStringLiteral("Back"), 0}},
        {QStringLiteral("calls"), {QStringLiteral("Calls"), 0}},
        {QStringLiteral("timeline"), {QStringLiteral("Timeline"), 0}},
        {QStringLiteral("inserted"), {QStringLiteral("Inserted"), 0}},
    };
    const auto command = commands.constFind(args.value(0));
    QStringList callArgs = args.mid(1);
    if (command == commands.constEnd() || callArgs.size() > command->second
        || (callArgs.size() < command->second && args.value(0) != QLatin1String("fail-next-mount"))) {
        err << ControlUsage;
        return 2;
    }
    while (callArgs.size() < command->second)
        callArgs << QString();
    QDBusMessage call = QDBusMessage::createMethodCall(SimNames::ControlService, SimNames::ControlPath,
                                                       SimNames::ControlInterface, command->first);
    if (command->first == QLatin1String("Hold")) {
        bool isNumber = false;
        const int milliseconds = callArgs.at(1).toInt(&isNumber);
        if (!isNumber) {
            err << ControlUsage;
            return 2;
        }
        call << callArgs.at(0) << milliseconds;
    } else {
        for (const QString& arg : callArgs)
            call << arg;
    }
    const QDBusMessage reply = QDBusConnection::systemBus().call(call);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        err << "udisks2-sim ctl: " << reply.errorMessage() << "\n";
        return 1;
    }
    for (const QVariant& value : reply.arguments())
        for (const QString& line : value.toStringList())
            out << line << "\n";
    return 0;
}
} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("udisks2-sim"));
    RegisterSimTypes();

    const QStringList arguments = app.arguments();
    if (arguments.value(1) == QLatin1String("ctl"))
        return Control(arguments.mid(2));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Stands in for the UDisks2 service on the system bus (DBUS_SYSTEM_BUS_ADDRESS), simulating the storage "
        "of one unit.\nControl a running simulator with: udisks2-sim ctl COMMAND (ctl without a command lists them)."));
    parser.addHelpOption();
    const QCommandLineOption unitOption(QStringLiteral("unit"), QStringLiteral("Unit description (JSON)."), QStringLiteral("file"));
    const QCommandLineOption baseOption(QStringLiteral("mount-base"), QStringLiteral("Where mount directories are made."),
                                       QStringLiteral("dir"), QStringLiteral("/run/media"));
    parser.addOption(unitOption);
    parser.addOption(baseOption);
    parser.process(app);

    QTextStream err(stderr);
    tUnitDescription unit;
    QString error;
    if (parser.isSet(unitOption) && !unit.Load(parser.value(unitOption), &error)) {
        err << "udisks2-sim: " << error << "\n";
        return 1;
    }
    QDBusConnection bus = QDBusConnection::systemBus();
    if (!bus.isConnected()) {
        err << "udisks2-sim: no system bus: " << bus.lastError().message() << "\n";
        return 1;
    }
    tSimDevices devices(unit, parser.value(baseOption));
    if (!devices.Start(&error)) {
        err << "udisks2-sim: " << error << "\n";
        return 1;
    }
    tSimBus simBus(&devices, bus);
    tSimControl control(&devices, &simBus);
    // The control name comes last: once it is owned, the simulator is ready.
    if (!simBus.Register(&error)
        || !bus.registerObject(SimNames::ControlPath, &control, QDBusConnection::ExportAllSlots)
        || !bus.registerService(SimNames::ControlService)) {
        err << "udisks2-sim: " << (error.isEmpty() ? bus.lastError().message() : error) << "\n";
        return 1;
    }
    // A clean exit on SIGTERM and SIGINT, so that leak checkers see the whole run.
    tUnixSignalNotifier notifier;
    QObject::connect(&notifier, &tUnixSignalNotifier::SignalReceived, &app, &QCoreApplication::quit);
    notifier.RegisterSignal(SIGTERM);
    notifier.RegisterSignal(SIGINT);
    return app.exec();
}
