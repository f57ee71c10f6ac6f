// docs/protocol.md against a running larkd: its ```json examples of what
// larkd sends are byte for byte what it sends for the same volumes, its
// request examples are requests larkd understands, and its Python client
// prints what the document says it prints.

#include "DaemonProcess.h"
#include "AppConnection.h"
#include "PrivateMounts.h"
#include "daemon/AppRequest.h"

#include <QRegularExpression>
#include <QtTest>

namespace
{
// The fenced blocks of the document with this info string, in order.
QList<QByteArray> Blocks(const QByteArray& document, const QString& info)
{
    QList<QByteArray> blocks;
    const QRegularExpression fence(QStringLiteral("^```%1\\n(.*?\\n)```$").arg(info),
                                   QRegularExpression::MultilineOption | QRegularExpression::DotMatchesEverythingOption);
    auto it = fence.globalMatch(QString::fromUtf8(document));
    while (it.hasNext())
        blocks << it.next().captured(1).toUtf8();
    return blocks;
}
} // namespace

class tProtocolDocTest : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void examplesAreWhatLarkdSends();

private:
    QTemporaryDir m_Files;
    QByteArray m_Document;
};

void tProtocolDocTest::initTestCase()
{
    QFile document(qEnvironmentVariable("LARKD_PROTOCOL_DOC"));
    QVERIFY2(document.open(QIODevice::ReadOnly), qPrintable(document.fileName()));
    m_Document = document.readAll();
    LARKD_REQUIRE_NAMESPACE();
    for (const auto& [name, word] : {std::pair{"content-id", "CHARTS-2024.2"}, std::pair{"serial", "SN-0042"}}) {
        QFile file(m_Files.filePath(name));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(QByteArray(word) + '\n') > 0);
    }
}

void tProtocolDocTest::examplesAreWhatLarkdSends()
{
    QList<QByteArray> sent, requests;
    for (const QByteArray& block : Blocks(m_Document, QStringLiteral("json")))
        (block.contains("\"dataarrival\"") ? sent : requests) << block;
    QCOMPARE(sent.size(), 3); // the card, the stick, the stick's removal
    QVERIFY(requests.size() >= 3);
    for (const QByteArray& request : qAsConst(requests)) {
        const tAppRequest::Kind kind = ParseAppRequest(request).kind;
        QVERIFY2(kind != tAppRequest::Kind::Malformed && kind != tAppRequest::Kind::Unknown
                     && kind != tAppRequest::Kind::Ignored,
                 request.constData());
    }
    const QList<QByteArray> client = Blocks(m_Document, QStringLiteral("python"));
    const QList<QByteArray> clientOutput = Blocks(m_Document, QStringLiteral("text"));
    QCOMPARE(client.size(), 1);
    QCOMPARE(clientOutput.size(), 1);

    tLarkdUnit unit(E2eUnitFile(), {QStringLiteral("--vfat"), QStringLiteral("utf8,shortname=mixed"),
                                    QStringLiteral("--content-id-file"), m_Files.filePath("content-id"),
                                    QStringLiteral("--serial-number-file"), m_Files.filePath("serial")});
    QString error;
    QVERIFY2(unit.Start(&error), qPrintable(error));
    // The card present at start, then a stick put in and pulled out.
    tAppConnection app;
    QVERIFY(app.Connect(unit.Port()));
    QList<QByteArray> got = app.TakeDocuments(1);
    QVERIFY(unit.Insert(QStringLiteral("usb"), QStringLiteral("stick")));
    got += app.TakeDocuments(1);
    const QByteArray enquiry = requests.value(0);
    QVERIFY2(enquiry.contains("\"enquerydevicelist\""), "the first request example asks for the list");
    app.SendRaw(enquiry + '\0');
    const QList<QByteArray> listed = app.TakeDocuments(2);
    QVERIFY(unit.Remove(QStringLiteral("usb")));
    got += app.TakeDocuments(1);
    QVERIFY2(got == sent, ("larkd sent:\n" + got.join("----\n")).constData());
    QCOMPARE(listed, sent.mid(0, 2));

    // The client takes over from app: it hears of the card, then of the stick
    // coming and going, and ends when larkd does.
    QTemporaryFile script;
    QVERIFY(script.open() && script.write(client.first()) > 0);
    script.close();
    QProcess python;
    python.start(QStringLiteral("python3"), {script.fileName(), QString::number(unit.Port())});
    QByteArray output;
    auto printed = [&](int lines) {
        return QTest::qWaitFor([&] { return (output += python.readAllStandardOutput()).count('\n') == lines; }, 10000);
    };
    QVERIFY(printed(1) && unit.Insert(QStringLiteral("usb"), QStringLiteral("stick")));
    QVERIFY(printed(2) && unit.Remove(QStringLiteral("usb")));
    QVERIFY(printed(3) && unit.Stop());
    QVERIFY(python.waitForFinished(5000));
    output += python.readAllStandardOutput();
    QVERIFY2(python.exitCode() == 0, python.readAllStandardError().constData());
    QCOMPARE(output, clientOutput.first());
    QVERIFY(app.TakeDocuments().isEmpty());
}

LARKD_NAMESPACE_TEST_MAIN(tProtocolDocTest)

#include "tst_protocoldoc.moc"
