// The announcement datagram against hand-written bytes (the peer unit writes
// and reads the same), and the reader's bounds on malformed input.
#include "sharing/ShareDatagram.h"
#include "system/JsonKeys.h"

#include <QtTest>

namespace
{
const QByteArray cJsonAll = "{\n    \"CodeName\": \"lark\",\n    \"ContentID\": \"C1\",\n    \"SerialNumber\": \"S9\"\n}\n";
const QByteArray cJsonEmpty = "{\n    \"ContentID\": \"\",\n    \"SerialNumber\": \"\"\n}\n";
// A present share's header, without its three string lengths.
const QByteArray cHeader = QByteArray::fromHex("78563412" "0100" "0100" "e803" "0000" "0000");

tNfsData ChartShare()
{
    return tNfsData{"/media/vol", 1, "Chart", "SD", QString(), true, 0, false, "C1", "S9", "lark"};
}

QByteArray Encode(const tNfsData& share)
{
    return EncodeShareDatagram(ShareDatagram::cSharePresent, share).datagram;
}

tDecodedShareMessage Decode(const QByteArray& datagram, bool* isShare = nullptr)
{
    tDecodedShareMessage message;
    const bool ok = DecodeShareDatagram(datagram.constData(), datagram.size(), QStringLiteral("10.0.0.7"), &message);
    if (isShare)
        *isShare = ok;
    return message;
}
} // namespace

class tShareDatagramTest : public QObject
{
    Q_OBJECT
private slots:
    void writerAndReaderAgreeWithThePeersBytes()
    {
        const QByteArray chart = EncodeShareDatagram(ShareDatagram::cShareWithdrawn, ChartShare()).datagram;
        QCOMPARE(chart, QByteArray::fromHex("78563412" "0100" "0200" "e803" "0100" "0100" "0b00" "0600" "0300")
                            + QByteArray("/media/vol\0Chart\0SD\0", 20) + cJsonAll);
        const tDecodedShareMessage message = Decode(chart);
        QCOMPARE(message.type, quint16(ShareDatagram::cShareWithdrawn));
        QVERIFY(message.jsonValid);
        tNfsData expected = ChartShare();
        expected.source = QStringLiteral("10.0.0.7:/media/vol"); // marked with its sender
        QCOMPARE(message.share, expected);

        // Empty strings keep their NUL; without a code name the JSON has none.
        QByteArray empty = Encode(tNfsData());
        QCOMPARE(empty, cHeader + QByteArray::fromHex("0100" "0100" "0100" "000000") + cJsonEmpty);
        empty[13] = 1; // any non-zero read-only word
        QVERIFY(Decode(empty).share.readOnly);

        // A length counts UTF-16 units + 1, and that many bytes of UTF-8 are
        // copied: non-ASCII text loses its NUL and runs into the next string
        // when read, while the lengths still find each string's start.
        tNfsData share;
        share.source = QStringLiteral("/k\u00e4rt");
        share.name = QStringLiteral("N");
        const QByteArray cut = Encode(share);
        QCOMPARE(cut.mid(14, 2), QByteArray::fromHex("0600"));
        QCOMPARE(cut.mid(20, 8), QByteArray("/k\xc3\xa4rtN\0", 8));
        QCOMPARE(Decode(cut).share.source, QStringLiteral("10.0.0.7:/k\u00e4rtN"));
        QCOMPARE(Decode(cut).share.name, QStringLiteral("N"));

        // 1500 bytes fit; one more is not sent at all.
        share = tNfsData();
        share.source = QString(1500 - 23 - cJsonEmpty.size(), QLatin1Char('a'));
        QCOMPARE(Encode(share).size(), 1500);
        share.source += QLatin1Char('a');
        QVERIFY(!EncodeShareDatagram(ShareDatagram::cSharePresent, share).fits);
    }

    void readerStaysInsideMalformedDatagrams()
    {
        QByteArray swapped = Encode(ChartShare());
        swapped.replace(0, 4, QByteArray::fromHex("12345678"));
        const QByteArray noStrings = QByteArray::fromHex("0100" "0100" "0100") + QByteArray(3, '\0');
        const struct
        {
            QByteArray datagram;
            bool isShare;
            QString source, detail;
            bool jsonPresent, jsonValid;
        } cases[] = {
            {swapped, false, {}, {}, false, false},
            {QByteArray(1, '\0'), false, {}, {}, false, false}, // the keep-alive byte
            // JSON starting exactly at the end: none.
            {cHeader + QByteArray::fromHex("0200" "0200" "0200") + QByteArray("a\0b\0c\0", 6), true, "a", "c", false, false},
            // Lengths far past the end: later strings are empty.
            {cHeader + QByteArray::fromHex("ffff" "ffff" "ffff") + "abc", true, "abc", "", false, false},
            // A last string without NUL ends with the datagram.
            {cHeader + QByteArray::fromHex("0100" "0100" "0900") + QByteArray("\0\0unended", 9), true, "", "unended", false, false},
            {cHeader + noStrings + "{\"ContentID\":", true, "", "", true, false},
            // A single byte of JSON is the newline the reader drops.
            {cHeader + noStrings + "\n", true, "", "", true, false},
            {cHeader + noStrings + "{\"ContentID\":\"C1\",\"Extra\":[1],\"Extra\":[2]}\n", true, "", "", true, false},
        };
        for (const auto& c : cases) {
            const QByteArray hex = c.datagram.left(40).toHex();
            bool isShare = !c.isShare;
            const tDecodedShareMessage message = Decode(c.datagram, &isShare);
            QVERIFY2(isShare == c.isShare, hex.constData());
            if (!isShare)
                continue;
            QCOMPARE(message.share.source, QStringLiteral("10.0.0.7:") + c.source);
            QCOMPARE(message.share.detail, c.detail);
            QVERIFY2(message.jsonPresent == c.jsonPresent && message.jsonValid == c.jsonValid, hex.constData());
            QVERIFY2(message.share.contentId.isEmpty(), hex.constData());
        }
        // Shorter than the header, magic or not: nothing can be read.
        for (int size = 0; size < ShareDatagram::cHeaderSize; ++size) {
            bool isShare = true;
            Decode(Encode(ChartShare()).left(size), &isShare);
            QVERIFY2(!isShare, qPrintable(QString::number(size)));
        }
    }

    // Defined outside: moc misreads the raw strings it holds.
    void repeatedKeysAreFound();
};

// Qt's parser leaks a repeated key's earlier container value: such text from
// outside must never reach it, however the repetition is spelled.
void tShareDatagramTest::repeatedKeysAreFound()
{
    for (const char* json : {R"({"a":[1],"a":[1]})", R"({"m":{"x":1,"b":{},"\u0078":[2]}})", R"({"k\"}{":1,"k\"}{":2)"})
        QVERIFY2(RepeatsAKey(json), json);
    for (const char* json : {R"({"a":{"a":{"a":1}},"b":["a","a"],"c":"\"a\":1,\"a\""})",
                             R"({"message":{"type":"datasource","content":{"dataunmount":{"path":"/mnt/x"}}}})"})
        QVERIFY2(!RepeatsAKey(json), json);
}

QTEST_GUILESS_MAIN(tShareDatagramTest)
#include "tst_sharedatagram.moc"
