// larkd-bench: figures of larkd on a simulated unit, run by hand as root.
//
//   larkd-bench [--quick] [--inserts N] [--cycles N] [--startup-runs N]
//               [--only latency,udiskie,startup,memory] [-- LARKD-OPTION...]
//
// larkd runs as the end-to-end tests run it (tools/unit/larkd-unit.sh: a
// private mount namespace with its own /run/media, a private bus, the UDisks2
// simulator and the recording stand-ins for exportfs, mount, umount and
// mountpoint); Debian's udiskie, the comparison, runs against the same
// simulator on a private bus of its own. Every moment is CLOCK_MONOTONIC: the
// simulator's timeline gives when a medium went in and when Mount came; this
// process gives when a client received a message and when larkd listened.

#include "AppClient.h"
#include "LarkdUnit.h"
#include "SimulatedUnit.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <cstdio>
#include <chrono>
#include <functional>

#include <unistd.h>

namespace
{
const char* const cExecStamped = "--exec-stamped";

double NowMs()
{
    // The steady clock is CLOCK_MONOTONIC, the simulator's clock too.
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

QString Env(const char* name, const char* fallback)
{
    const QString value = qEnvironmentVariable(name);
    return value.isEmpty() ? QString::fromUtf8(fallback) : value;
}

QString LarkdBinary()
{
    return Env("LARKD_BINARY", LARKD_BENCH_LARKD);
}

// Polls done() while events are processed, for at most timeoutMs.
bool WaitUntil(const std::function<bool()>& done, int timeoutMs, int pollMs = 1)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.hasExpired(timeoutMs))
            return false;
        QTest::qWait(pollMs);
    }
    return true;
}

struct tEvent
{
    double ms = 0;
    QString line;
};

QList<tEvent> ParseTimeline(const QStringList& lines)
{
    QList<tEvent> events;
    for (const QString& line : lines)
        events << tEvent{line.section(QLatin1Char(' '), 0, 0).toDouble(), line.section(QLatin1Char(' '), 1)};
    return events;
}

// The moment of the first line starting with prefix at or after from; 0 if none.
double FirstAfter(const QList<tEvent>& events, const QString& prefix, double from)
{
    for (const tEvent& event : events)
        if (event.ms >= from && event.line.startsWith(prefix))
            return event.ms;
    return 0;
}

double LastOf(const QList<tEvent>& events, const QString& prefix)
{
    double last = 0;
    for (const tEvent& event : events)
        if (event.line.startsWith(prefix))
            last = event.ms;
    return last;
}

struct tStats
{
    double median = 0, min = 0, max = 0;
    int count = 0;
};

tStats Summarise(QVector<double> values)
{
    tStats stats;
    stats.count = values.size();
    if (values.isEmpty())
        return stats;
    std::sort(values.begin(), values.end());
    const int n = values.size();
    stats.median = n % 2 ? values.at(n / 2) : (values.at(n / 2 - 1) + values.at(n / 2)) / 2;
    stats.min = values.first();
    stats.max = values.last();
    return stats;
}

void PrintRow(const char* label, const tStats& stats)
{
    std::printf("  %-26s %9.2f %9.2f %9.2f %5d\n", label, stats.median, stats.min, stats.max, stats.count);
    std::fflush(stdout);
}

void Note(const QString& text)
{
    std::fprintf(stderr, "larkd-bench: %s\n", qUtf8Printable(text));
}

qint64 RssAnonKb(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("RssAnon:"))
            return line.mid(8).trimmed().split(' ').value(0).toLongLong();
    return -1;
}

// The display application's end: every "dataarrival" with the moment its
// document was whole.
class tBenchClient
{
public:
    struct tArrival
    {
        double ms = 0;
        QString path;
        bool removal = false;
    };

    bool Connect(quint16 port)
    {
        QObject::connect(&m_Client, &tAppClient::MessageReceived, [this](const QByteArray& document) {
            const QJsonObject arrival = QJsonDocument::fromJson(document)["message"]["content"]["dataarrival"].toObject();
            if (!arrival.isEmpty())
                m_Arrivals << tArrival{NowMs(), arrival.value(QStringLiteral("path")).toString(),
                                       arrival.value(QStringLiteral("friendlyname")).isNull()};
        });
        m_Client.ConnectTo(QStringLiteral("127.0.0.1"), port);
        return m_Client.Socket()->waitForConnected(5000);
    }
    // Waits for the next arrival (removal: its removal form) and takes it.
    bool Take(bool removal, tArrival* arrival, int timeoutMs = 10000)
    {
        return WaitUntil(
            [&] {
                while (!m_Arrivals.isEmpty()) {
                    *arrival = m_Arrivals.takeFirst();
                    if (arrival->removal == removal)
                        return true;
                }
                return false;
            },
            timeoutMs);
    }

private:
    tAppClient m_Client;
    QList<tArrival> m_Arrivals;
};

// The tests' unit, its larkd started through this program's --exec-stamped
// mode so that the moment of its exec is known, and logging as on a device.
class tBenchUnit : public tLarkdUnit
{
public:
    tBenchUnit(const QString& unitFile, const QStringList& larkdOptions)
        : tLarkdUnit(unitFile, larkdOptions)
    {
        SetEnvironment(QStringLiteral("QT_LOGGING_RULES"), QString());
    }

    bool Start(QString* error)
    {
        const QString wrapper = m_Stamp.filePath(QStringLiteral("larkd"));
        QFile script(wrapper);
        if (!script.open(QIODevice::WriteOnly)) {
            *error = QStringLiteral("cannot write ") + wrapper;
            return false;
        }
        script.write(QStringLiteral("#!/bin/sh\nexec '%1' %2 '%3' '%4' \"$@\"\n")
                         .arg(QCoreApplication::applicationFilePath(), QLatin1String(cExecStamped),
                              m_Stamp.filePath(QStringLiteral("started")), LarkdBinary())
                         .toUtf8());
        script.close();
        script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        SetEnvironment(QStringLiteral("LARKD_BINARY"), wrapper);
        if (!tLarkdUnit::Start(error))
            return false;
        m_ListeningMs = NowMs();
        m_StartedMs = ReadFile(m_Stamp.filePath(QStringLiteral("started"))).toDouble();
        return true;
    }

    // How many unexports the stand-ins have recorded so far; reads only what
    // was added since the last call.
    int Unexports()
    {
        QFile calls(CallsFile());
        if (calls.open(QIODevice::ReadOnly) && calls.seek(m_CallsRead)) {
            QByteArray added = m_CallsTail + calls.readAll();
            m_CallsRead = calls.pos();
            const int end = added.lastIndexOf('\n') + 1;
            m_CallsTail = added.mid(end);
            m_Unexports += added.left(end).count("exportfs\t-u\t");
        }
        return m_Unexports;
    }

    // Without waiting for the service's clean-up: the rounds wait for what they need.
    bool Remove(const QString& slot, QString* error) { return tSimulatorControl::Remove(slot, error); }
    qint64 Pid() { return Process().processId(); }
    double StartedMs() const { return m_StartedMs; }
    double ListeningMs() const { return m_ListeningMs; }
    QList<tEvent> Events() { return ParseTimeline(Timeline()); }
    // The end of larkd's console output, for a failure's report.
    QString Log() { return QString::fromLocal8Bit(tLarkdUnit::Log().right(2000)); }

private:
    static QByteArray ReadFile(const QString& path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    QTemporaryDir m_Stamp;
    double m_StartedMs = 0;
    double m_ListeningMs = 0;
    qint64 m_CallsRead = 0;
    QByteArray m_CallsTail;
    int m_Unexports = 0;
};

struct tSettings
{
    int inserts = 50;
    int cycles = 10000;
    int startupRuns = 3;
    QStringList larkdOptions;
    QString exampleUnit;
};

bool Fail(const QString& text)
{
    Note(text);
    return false;
}

// Insert -> Mount and insert -> dataarrival: a card into the left slot,
// counted after one warm-up round; each round waits for the simulator's
// clean-up so that every insert finds the same state.
bool LarkdLatency(const tSettings& settings, QVector<double>* toMount, QVector<double>* toArrival)
{
    tBenchUnit unit(settings.exampleUnit, settings.larkdOptions);
    tBenchClient client;
    QString error;
    if (!unit.Start(&error) || !client.Connect(unit.Port()))
        return Fail(error.isEmpty() ? QStringLiteral("cannot connect to larkd") : error);
    // Seen from outside larkd's mount namespace.
    const QString mountDirectory = QStringLiteral("/proc/%1/root/run/media/CHARTS").arg(unit.Pid());
    for (int round = 0; round <= settings.inserts; ++round) {
        tBenchClient::tArrival arrival;
        if (!unit.Insert(QStringLiteral("left"), QStringLiteral("charts"), &error))
            return Fail(error);
        if (!client.Take(false, &arrival) || !arrival.path.contains(QLatin1String("CHARTS")))
            return Fail(QStringLiteral("no dataarrival for the card: ") + unit.Log());
        const QList<tEvent> events = unit.Events();
        const double inserted = LastOf(events, QStringLiteral("Insert left charts"));
        const double mounted = FirstAfter(events, QStringLiteral("Mount mmcblk0p1 "), inserted);
        if (!inserted || !mounted)
            return Fail(QStringLiteral("the simulator's timeline lacks the insert or the Mount"));
        if (round > 0) {
            *toMount << mounted - inserted;
            *toArrival << arrival.ms - inserted;
        }
        if (!unit.Remove(QStringLiteral("left"), &error))
            return Fail(error);
        if (!client.Take(true, &arrival))
            return Fail(QStringLiteral("no removal reported: ") + unit.Log());
        if (!WaitUntil([&] { return !QFileInfo::exists(mountDirectory); }, 5000))
            return Fail(QStringLiteral("the simulator did not clean up after the card"));
    }
    return true;
}

// The same inserts with udiskie as the client of the simulator.
bool UdiskieLatency(const tSettings& settings, QVector<double>* toMount)
{
    tSimulatedUnit sim(settings.exampleUnit);
    QString error;
    if (!sim.Start(false, &error))
        return Fail(error);
    QTemporaryDir logDir;
    QProcess udiskie;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DBUS_SYSTEM_BUS_ADDRESS"), sim.Bus().Address());
    udiskie.setProcessEnvironment(environment);
    udiskie.setProcessChannelMode(QProcess::MergedChannels);
    udiskie.setStandardOutputFile(logDir.filePath(QStringLiteral("udiskie.log")));
    // Automounting without notifications, tray or file manager; ends with us.
    udiskie.start(QStringLiteral("setpriv"), {QStringLiteral("--pdeathsig"), QStringLiteral("TERM"), QStringLiteral("--"),
                                              QStringLiteral("udiskie"), QStringLiteral("-C"), QStringLiteral("-a"),
                                              QStringLiteral("-N"), QStringLiteral("-T"), QStringLiteral("-F"),
                                              QStringLiteral("--no-terminal")});
    if (!udiskie.waitForStarted(5000))
        return Fail(QStringLiteral("udiskie does not start: ") + udiskie.errorString());
    const QString mountDirectory = sim.MountBase() + QStringLiteral("/CHARTS");
    bool done = true;
    for (int round = 0; round <= settings.inserts && done; ++round) {
        if (!sim.Insert(QStringLiteral("left"), QStringLiteral("charts"), &error)) {
            done = Fail(error);
            break;
        }
        // The directory comes with the Mount; watching it leaves the simulator
        // to udiskie. The warm-up round also waits for udiskie to come up.
        if (!WaitUntil([&] { return QFileInfo::exists(mountDirectory); }, round == 0 ? 30000 : 10000)) {
            QFile log(logDir.filePath(QStringLiteral("udiskie.log")));
            log.open(QIODevice::ReadOnly);
            done = Fail(QStringLiteral("udiskie did not mount the card: ") + QString::fromLocal8Bit(log.readAll()));
            break;
        }
        const QList<tEvent> events = ParseTimeline(sim.Timeline());
        const double inserted = LastOf(events, QStringLiteral("Insert left charts"));
        const double mounted = FirstAfter(events, QStringLiteral("Mount mmcblk0p1 "), inserted);
        if (!inserted || !mounted) {
            done = Fail(QStringLiteral("the simulator's timeline lacks the insert or the Mount"));
            break;
        }
        if (round > 0)
            *toMount << mounted - inserted;
        if (!sim.Remove(QStringLiteral("left"), &error)) {
            done = Fail(error);
            break;
        }
        if (!WaitUntil([&] { return !QFileInfo::exists(mountDirectory); }, 5000))
            done = Fail(QStringLiteral("the simulator did not clean up after the card"));
    }
    udiskie.terminate();
    if (!udiskie.waitForFinished(5000)) {
        udiskie.kill();
        udiskie.waitForFinished(5000);
    }
    return done;
}

// From larkd's exec to its listening, and from there to the Mount of the last
// of volumes sticks present at start.
bool StartUp(const tSettings& settings, int volumes, QVector<double>* toListening, QVector<double>* toLastMount)
{
    QTemporaryDir dir;
    const QString unitFile = dir.filePath(QStringLiteral("sticks-%1.json").arg(volumes));
    QFile file(unitFile);
    if (!file.open(QIODevice::WriteOnly) || file.write(UnitWithSticks(volumes)) < 0)
        return Fail(QStringLiteral("cannot write ") + unitFile);
    file.close();
    for (int run = 0; run < settings.startupRuns; ++run) {
        tBenchUnit unit(unitFile, settings.larkdOptions);
        QString error;
        if (!unit.Start(&error))
            return Fail(error);
        // Mount directories, as larkd's namespace sees them: counting them
        // leaves the simulator to larkd.
        const QDir media(QStringLiteral("/proc/%1/root/run/media").arg(unit.Pid()));
        auto mounted = [&] { return media.entryList(QDir::Dirs | QDir::NoSymLinks | QDir::NoDotAndDotDot).size(); };
        if (!WaitUntil([&] { return mounted() >= volumes; }, 120000, 5))
            return Fail(QStringLiteral("larkd mounted %1 of %2 volumes: ").arg(mounted()).arg(volumes) + unit.Log());
        const QList<tEvent> events = unit.Events();
        if (std::count_if(events.cbegin(), events.cend(), [](const tEvent& e) { return e.line.startsWith(QLatin1String("Mount ")); })
            != volumes)
            return Fail(QStringLiteral("the simulator's timeline does not show %1 mounts").arg(volumes));
        *toListening << unit.ListeningMs() - unit.StartedMs();
        *toLastMount << LastOf(events, QStringLiteral("Mount ")) - unit.ListeningMs();
    }
    return true;
}

// larkd's anonymous resident memory around card insert/remove cycles, each
// complete as the application sees it (the card reported, then its removal)
// and as the NFS server does (its unexport run). The application hears first:
// cycles paced by it alone would outrun exportfs and measure its backlog.
bool Memory(const tSettings& settings)
{
    tBenchUnit unit(settings.exampleUnit, settings.larkdOptions);
    tBenchClient client;
    QString error;
    if (!unit.Start(&error) || !client.Connect(unit.Port()))
        return Fail(error.isEmpty() ? QStringLiteral("cannot connect to larkd") : error);
    int cycles = 0;
    auto cycle = [&] {
        ++cycles;
        tBenchClient::tArrival arrival;
        if (!unit.Insert(QStringLiteral("left"), QStringLiteral("charts"), &error)
            || !client.Take(false, &arrival)
            || !unit.Remove(QStringLiteral("left"), &error) || !client.Take(true, &arrival)
            || !WaitUntil([&] { return unit.Unexports() >= cycles; }, 10000))
            return Fail(QStringLiteral("a cycle did not complete: ") + error + QLatin1Char(' ') + unit.Log());
        return true;
    };
    // Every step from the script to larkd is an exec, so its process is larkd's.
    if (QFileInfo(QStringLiteral("/proc/%1/exe").arg(unit.Pid())).canonicalFilePath() != QFileInfo(LarkdBinary()).canonicalFilePath())
        return Fail(QStringLiteral("process %1 is not larkd").arg(unit.Pid()));
    const qint64 atStart = RssAnonKb(unit.Pid());
    constexpr int cWarmUp = 10;
    for (int i = 0; i < cWarmUp; ++i)
        if (!cycle())
            return false;
    const qint64 before = RssAnonKb(unit.Pid());
    QElapsedTimer clock;
    clock.start();
    for (int i = 1; i <= settings.cycles; ++i) {
        if (!cycle())
            return false;
        if (i % 1000 == 0)
            Note(QStringLiteral("%1 cycles, %2 s").arg(i).arg(clock.elapsed() / 1000.0, 0, 'f', 1));
    }
    const double seconds = clock.elapsed() / 1000.0;
    const qint64 after = RssAnonKb(unit.Pid());
    std::printf("\nRssAnon of larkd (kB), insert/remove cycles of a card\n");
    std::printf("  at start %lld, after %d warm-up cycles %lld, after %d more cycles %lld: delta %+lld kB (%.1f s)\n",
                static_cast<long long>(atStart), cWarmUp, static_cast<long long>(before), settings.cycles,
                static_cast<long long>(after), static_cast<long long>(after - before), seconds);
    return true;
}

QString UdiskieVersion()
{
    QProcess process;
    process.start(QStringLiteral("udiskie"), {QStringLiteral("--version")});
    if (!process.waitForFinished(20000))
        return QString();
    return QString::fromLocal8Bit(process.readAllStandardOutput() + process.readAllStandardError()).trimmed();
}
} // namespace

int main(int argc, char* argv[])
{
    // Stands between larkd-unit.sh and larkd: notes the moment, then becomes larkd.
    if (argc >= 4 && qstrcmp(argv[1], cExecStamped) == 0) {
        const QByteArray file = argv[2];
        if (FILE* out = std::fopen((file + ".new").constData(), "w")) {
            std::fprintf(out, "%.3f\n", NowMs());
            std::fclose(out);
            std::rename((file + ".new").constData(), file.constData());
        }
        ::execv(argv[3], argv + 3);
        std::perror(argv[3]);
        return 127;
    }

    QCoreApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("larkd-bench"));
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Figures of larkd on a simulated unit: insert -> Mount (beside udiskie), insert -> dataarrival, start-up "
        "with 1, 10 and 50 volumes, and resident memory over insert/remove cycles. Needs root. Options after "
        "-- go to larkd."));
    parser.addHelpOption();
    const QCommandLineOption quick(QStringLiteral("quick"), QStringLiteral("Short counts: 10 inserts, 300 cycles, 1 start-up run."));
    const QCommandLineOption inserts(QStringLiteral("inserts"), QStringLiteral("Inserts timed per client (50)."), QStringLiteral("n"));
    const QCommandLineOption cycles(QStringLiteral("cycles"), QStringLiteral("Insert/remove cycles for the memory figure (10000)."),
                                    QStringLiteral("n"));
    const QCommandLineOption runs(QStringLiteral("startup-runs"), QStringLiteral("Start-ups per volume count (3)."), QStringLiteral("n"));
    const QCommandLineOption only(QStringLiteral("only"), QStringLiteral("Comma-separated: latency, udiskie, startup, memory."),
                                  QStringLiteral("parts"));
    parser.addOptions({quick, inserts, cycles, runs, only});
    parser.addPositionalArgument(QStringLiteral("larkd-options"), QStringLiteral("Further options for larkd."), QStringLiteral("[-- options...]"));
    parser.process(app);

    tSettings settings;
    if (parser.isSet(quick)) {
        settings.inserts = 10;
        settings.cycles = 300;
        settings.startupRuns = 1;
    }
    auto number = [&](const QCommandLineOption& option, int* value) {
        if (!parser.isSet(option))
            return true;
        bool ok = false;
        *value = parser.value(option).toInt(&ok);
        return ok && *value > 0;
    };
    if (!number(inserts, &settings.inserts) || !number(cycles, &settings.cycles) || !number(runs, &settings.startupRuns)) {
        Note(QStringLiteral("counts must be positive numbers"));
        return 2;
    }
    QStringList parts{QStringLiteral("latency"), QStringLiteral("udiskie"), QStringLiteral("startup"), QStringLiteral("memory")};
    if (parser.isSet(only)) {
        const QStringList chosen = parser.value(only).split(QLatin1Char(','), Qt::SkipEmptyParts);
        for (const QString& part : chosen)
            if (!parts.contains(part)) {
                Note(QStringLiteral("no part \"%1\"").arg(part));
                return 2;
            }
        parts = chosen;
    }
    settings.larkdOptions = parser.positionalArguments();
    settings.exampleUnit = QStringLiteral(LARKD_BENCH_UNITS "/two-slots-stick-reader.json");
    if (::geteuid() != 0) {
        Note(QStringLiteral("needs root, for larkd's private mount namespace"));
        return 1;
    }
    if (qEnvironmentVariableIsEmpty("UDISKS2_SIM_BINARY"))
        qputenv("UDISKS2_SIM_BINARY", LARKD_BENCH_SIM);

    // Other work on the machine shows in every figure: say how busy it was.
    QFile loadavg(QStringLiteral("/proc/loadavg"));
    loadavg.open(QIODevice::ReadOnly);
    std::printf("larkd-bench: %s, %d inserts, %d cycles, %d start-up runs; load average %s\n",
                qUtf8Printable(LarkdBinary()), settings.inserts, settings.cycles, settings.startupRuns,
                loadavg.readAll().split(' ').mid(0, 3).join(' ').constData());
    bool ok = true;
    if (parts.contains(QStringLiteral("latency")) || parts.contains(QStringLiteral("udiskie"))) {
        QVector<double> larkdMount, larkdArrival, udiskieMount;
        if (parts.contains(QStringLiteral("latency")))
            ok = LarkdLatency(settings, &larkdMount, &larkdArrival) && ok;
        if (parts.contains(QStringLiteral("udiskie"))) {
            const QString version = UdiskieVersion();
            if (version.isEmpty())
                ok = Fail(QStringLiteral("udiskie is not installed (scripts/setup.sh installs it)"));
            else
                ok = UdiskieLatency(settings, &udiskieMount) && ok;
            if (!version.isEmpty())
                std::printf("comparison: %s\n", qUtf8Printable(version));
        }
        std::printf("\n%-28s %9s %9s %9s %5s\n", "insert -> Mount (ms)", "median", "min", "max", "n");
        if (!larkdMount.isEmpty())
            PrintRow("larkd", Summarise(larkdMount));
        if (!udiskieMount.isEmpty())
            PrintRow("udiskie", Summarise(udiskieMount));
        if (!larkdArrival.isEmpty()) {
            std::printf("%-28s %9s %9s %9s %5s\n", "insert -> dataarrival (ms)", "median", "min", "max", "n");
            PrintRow("larkd", Summarise(larkdArrival));
        }
    }
    if (parts.contains(QStringLiteral("startup"))) {
        std::printf("\nstart-up (ms), median [min, max] of %d run(s)\n  %-8s %-28s %s\n", settings.startupRuns, "volumes",
                    "exec -> listening", "listening -> last Mount");
        for (const int volumes : {1, 10, 50}) {
            QVector<double> toListening, toLastMount;
            if (!StartUp(settings, volumes, &toListening, &toLastMount)) {
                ok = false;
                continue;
            }
            const tStats listening = Summarise(toListening), lastMount = Summarise(toLastMount);
            const QString first = QStringLiteral("%1 [%2, %3]").arg(listening.median, 0, 'f', 1).arg(listening.min, 0, 'f', 1).arg(listening.max, 0, 'f', 1);
            std::printf("  %-8d %-28s %.1f [%.1f, %.1f]\n", volumes, qUtf8Printable(first), lastMount.median, lastMount.min,
                        lastMount.max);
            std::fflush(stdout);
        }
    }
    if (parts.contains(QStringLiteral("memory")))
        ok = Memory(settings) && ok;
    return ok ? 0 : 1;
}
