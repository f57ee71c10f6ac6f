#include "daemon/DaemonConfig.h"

#include <QCoreApplication>
#include <QtGlobal>

namespace
{
std::function<int(bool*)> ToInt(const QCommandLineParser& parser, const QCommandLineOption& option)
{
    return [&parser, &option](bool* ok) { return parser.value(option).toInt(ok, 10); };
}

// Only the low 16 bits of the port are kept: 70000 becomes 4464.
std::function<unsigned short(bool*)> ToPort(const QCommandLineParser& parser, const QCommandLineOption& option)
{
    return [&parser, &option](bool* ok) { return static_cast<unsigned short>(parser.value(option).toUInt(ok, 10)); };
}
} // namespace

bool ParseCommandLine(QCoreApplication& app, tDaemonConfig& config, QString& errorMessage)
{
    return ParseArguments(app.arguments(), config, errorMessage);
}

bool ParseArguments(const QStringList& arguments, tDaemonConfig& config, QString& errorMessage)
{
    using O = QCommandLineOption;
    const O contentIdFile({"c", "content-id-file"}, "Path to the content ID file.", "contentIdFile");
    const O daemonMode({"d", "daemon"}, "Daemon mode.");
    const O fileTimeout({"f", "file-timeout"}, "Time to wait for the required files to be created.", "waitFileTimeout");
    const O internalSharePath({"i", "internal-share-path"}, "Path to the internal storage for chart sharing.",
                              "internalSharePath");
    const O debugLevel({"l", "debuglevel"}, "Debug level.", "debugLevel");
    const O peerMac({"m", "peer-mac"}, "MAC address of the peer CPU.", "peerMac");
    const O serialNumberFile({"n", "serial-number-file"}, "Path to the serial number file.", "serialNumberFile");
    const O log({"o", "log"}, "Stub option.", "logDestination");
    const O port({"p", "port"}, "The port TAL listens on.", "port");
    const O nfsRoot({"r", "nfs-root"}, "Path to the root of nfs shares", "nfsRoot");
    const O disableChartSharing({"s", "disable-chart-sharing"}, "Chart availability will not be announced and shared.");
    const O vfatMountOpts({"vfat", "vfat-mount-opts"}, "Mount options for vfat in comma separated format.",
                          "vfatMountOpts");
    const O writeableExports("writeable-exports", "Export share as writeable (default is read-only).");
    const O disableSyslog("disable-syslog", "Output to console.");
    const O twoWayConnection("two-way-connection", "Application specifies the network interface");
    const O unmountTimeoutPeriod("unmount-timeout-period", "Period after which a device is considered disconnected",
                                 "unmountTimeoutPeriod");
    const O codeName("code-name", "Code name of this class of device. Advertised on the network.", "codeName");
    const O treatRemoteAsLocal("treat-remote-as-local", "Treat the exports of this type of device as local storage",
                               "treatRemoteAsLocal");

    QCommandLineParser parser;
    parser.setApplicationDescription("Media mount manager and service announcer");
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addOptions({contentIdFile, daemonMode, fileTimeout, internalSharePath, debugLevel, peerMac,
                       serialNumberFile, log, port, nfsRoot, disableChartSharing, vfatMountOpts, writeableExports,
                       disableSyslog, twoWayConnection, unmountTimeoutPeriod, codeName, treatRemoteAsLocal});
    parser.process(arguments);

    if (parser.isSet(contentIdFile))
        config.contentIdFile = parser.value(contentIdFile);
    config.daemonMode = parser.isSet(daemonMode);
    if (parser.isSet(fileTimeout)
        && !ArgumentToNumber(parser, fileTimeout, errorMessage, config.waitFileTimeout, ToInt(parser, fileTimeout)))
        return false;
    if (parser.isSet(internalSharePath))
        config.internalSharePath = parser.value(internalSharePath);
    if (parser.isSet(debugLevel)
        && !ArgumentToNumber(parser, debugLevel, errorMessage, config.debugLevel, ToInt(parser, debugLevel)))
        return false;
    if (parser.isSet(peerMac))
        config.peerMac = parser.value(peerMac);
    if (parser.isSet(serialNumberFile))
        config.serialNumberFile = parser.value(serialNumberFile);
    if (parser.isSet(log)) {
        const QStringList names = log.names();
        qWarning("Ignoring unused option -%s,--%s", qUtf8Printable(names.first()), qUtf8Printable(names.last()));
    }
    if (parser.isSet(port) && !ArgumentToNumber(parser, port, errorMessage, config.port, ToPort(parser, port)))
        return false;
    if (parser.isSet(nfsRoot))
        config.nfsRoot = parser.value(nfsRoot);
    config.disableChartSharing = parser.isSet(disableChartSharing);
    if (parser.isSet(vfatMountOpts))
        config.vfatMountOpts = parser.value(vfatMountOpts);
    config.disableSyslog = parser.isSet(disableSyslog);
    config.writeableExports = parser.isSet(writeableExports);
    config.twoWayConnection = parser.isSet(twoWayConnection);
    if (parser.isSet(unmountTimeoutPeriod)
        && !ArgumentToNumber(parser, unmountTimeoutPeriod, errorMessage, config.unmountTimeoutPeriod,
                             ToInt(parser, unmountTimeoutPeriod)))
        return false;
    if (parser.isSet(treatRemoteAsLocal))
        config.treatRemoteAsLocal = parser.value(treatRemoteAsLocal);
    if (parser.isSet(codeName))
        config.codeName = parser.value(codeName);
    return true;
}
