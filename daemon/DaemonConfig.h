#pragma once

#include <QCommandLineOption>
#include <QCommandLineParser>
#include <QString>
#include <QStringList>

#include <functional>

class QCoreApplication;

// The whole configuration of the daemon: filled once from the command line,
// read-only afterwards.
struct tDaemonConfig
{
    QString vfatMountOpts;
    QString internalSharePath;
    QString peerMac;
    QString contentIdFile;
    QString serialNumberFile;
    QString nfsRoot;
    quint16 port = 15003;
    qint32 debugLevel = 0;
    qint32 waitFileTimeout = 0;
    bool disableChartSharing = false;
    bool daemonMode = false;
    bool disableSyslog = false;
    bool writeableExports = false;
    bool twoWayConnection = false;
    qint32 unmountTimeoutPeriod = 3000;
    QString codeName;
    QString treatRemoteAsLocal;
};

// Parses the application's own arguments. Help, version, unknown options and
// missing values end the process through QCommandLineParser::process().
// Returns false with errorMessage set when a numeric option is malformed.
bool ParseCommandLine(QCoreApplication& app, tDaemonConfig& config, QString& errorMessage);

// Same as ParseCommandLine() on an explicit argument list (first element is the
// program name); lets tests parse without a process of their own.
bool ParseArguments(const QStringList& arguments, tDaemonConfig& config, QString& errorMessage);

// Stores convert()'s result in target whatever happens; on failure builds the
// "Bad value specified" text from the option's first and last names.
template <typename T>
bool ArgumentToNumber(const QCommandLineParser& parser, const QCommandLineOption& option,
                      QString& errorMessage, T& target, std::function<T(bool*)> convert)
{
    bool ok = false;
    target = convert(&ok);
    if (ok)
        return true;
    const QStringList names = option.names();
    errorMessage = QStringLiteral("Bad value specified '-") + names.first() + QStringLiteral(",--")
                   + names.last() + QStringLiteral("': ") + parser.value(option);
    return false;
}
