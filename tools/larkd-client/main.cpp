// larkd-client: talks to larkd the way the display application does.
//
//   larkd-client [--host H] [--port P] list [--wait MS]
//   larkd-client [--host H] [--port P] follow
//   larkd-client [--host H] [--port P] unmount PATH [--keep]
//   larkd-client [--host H] [--port P] share [INTERFACE]
//   larkd-client [--host H] [--port P] send JSON
//
// Received documents are printed one a line, in compact form.

#include "AppClient.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonObject>
#include <QTimer>

#include <cstdio>

namespace
{
QJsonDocument Envelope(const QString& type, const QJsonValue& content = QJsonValue::Undefined)
{
    QJsonObject message{{QStringLiteral("type"), type}};
    if (!content.isUndefined())
        message.insert(QStringLiteral("content"), content);
    return QJsonDocument(QJsonObject{{QStringLiteral("message"), message}});
}

void PrintLine(const QByteArray& document)
{
    const QJsonDocument parsed = QJsonDocument::fromJson(document);
    const QByteArray line = parsed.isNull() ? document : parsed.toJson(QJsonDocument::Compact);
    std::fwrite(line.constData(), 1, size_t(line.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

int Fail(const QString& text)
{
    std::fprintf(stderr, "larkd-client: %s\n", qUtf8Printable(text));
    return 2;
}
} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("larkd-client"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Talks to larkd as the display application does.\n\n"
        "Commands:\n"
        "  list [--wait MS]      print the volumes the daemon reports on connection\n"
        "  follow                print every message as it comes\n"
        "  unmount PATH [--keep] unmount a remote volume (--keep: keep it unmounted)\n"
        "  share [INTERFACE]     share charts on INTERFACE (none: stop sharing)\n"
        "  send JSON             send one raw document"));
    parser.addHelpOption();
    const QCommandLineOption host(QStringLiteral("host"), QStringLiteral("Daemon address."), QStringLiteral("host"),
                                  QStringLiteral("127.0.0.1"));
    const QCommandLineOption port({QStringLiteral("p"), QStringLiteral("port")}, QStringLiteral("Daemon port."),
                                  QStringLiteral("port"), QStringLiteral("15003"));
    const QCommandLineOption wait(QStringLiteral("wait"),
                                  QStringLiteral("list: milliseconds of silence that end the listing."),
                                  QStringLiteral("ms"), QStringLiteral("500"));
    const QCommandLineOption keep(QStringLiteral("keep"), QStringLiteral("unmount: keep the volume unmounted."));
    parser.addOptions({host, port, wait, keep});
    parser.addPositionalArgument(QStringLiteral("command"), QStringLiteral("list, follow, unmount, share or send."));
    parser.process(app);

    const QStringList args = parser.positionalArguments();
    if (args.isEmpty())
        return Fail(QStringLiteral("no command; see --help"));
    const QString command = args.first();

    QJsonDocument request;
    if (command == QLatin1String("list") || command == QLatin1String("follow")) {
        // Nothing to send: the daemon reports every volume to a new connection.
    } else if (command == QLatin1String("unmount") && args.size() == 2) {
        request = Envelope(QStringLiteral("datasource"),
                           QJsonObject{{QStringLiteral("dataunmount"),
                                        QJsonObject{{QStringLiteral("path"), args.at(1)},
                                                    {QStringLiteral("keepunmounted"), parser.isSet(keep)}}}});
    } else if (command == QLatin1String("share") && args.size() <= 2) {
        request = Envelope(QStringLiteral("chartsharing"), QJsonArray::fromStringList(args.mid(1)));
    } else if (command == QLatin1String("send") && args.size() == 2) {
        QJsonParseError error;
        request = QJsonDocument::fromJson(args.at(1).toUtf8(), &error);
        if (request.isNull())
            return Fail(QStringLiteral("not JSON: ") + error.errorString());
    } else {
        return Fail(QStringLiteral("bad command line; see --help"));
    }

    tAppClient client;
    QTimer silence;
    silence.setSingleShot(true);
    silence.setInterval(parser.value(wait).toInt());
    QObject::connect(&silence, &QTimer::timeout, &app, &QCoreApplication::quit);

    QObject::connect(&client, &tAppClient::Failed, &app, [](const QString& reason) {
        Fail(reason);
        QCoreApplication::exit(1);
    });
    QObject::connect(&client, &tAppClient::Disconnected, &app, [] { QCoreApplication::exit(0); });
    QObject::connect(&client, &tAppClient::MessageReceived, &app, [&](const QByteArray& document) {
        PrintLine(document);
        if (command == QLatin1String("list"))
            silence.start();
    });
    QObject::connect(&client, &tAppClient::Connected, &app, [&] {
        if (!request.isNull()) {
            client.Send(request);
            client.Socket()->disconnectFromHost(); // flushes, then Disconnected ends the run
        } else if (command == QLatin1String("list")) {
            silence.start();
        }
    });
    client.ConnectTo(parser.value(host), quint16(parser.value(port).toUInt()));
    return QCoreApplication::exec();
}
