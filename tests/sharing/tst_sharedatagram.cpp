// The announcement datagram: writer against hand-written bytes, reader rules,
// and the reader's bounds on malformed input.
#include "sharing/ShareDatagram.h"
#include "system/JsonKeys.h"

#include <QtTest>

namespace
{
const QByteArray cJsonAll = "{\n    \"CodeName\": \"lark\",\n    \"ContentID\": \"C1\",\n    \"SerialNumber\": \"S9\"\n}\n";
const QByteArray cJsonNoCodeName = "{\n    \"ContentID\": \"\",\n    \"SerialNumber\": \"\"\n}\n";

tNfsData ChartShare()
{
    return tNfsData{"/media/vol", 1, "Chart", "SD", QString(), true, 0, false, "C1", "S9", "lark"};
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
    void writerProducesExactBytes();
    void writerCutsNonAsciiStrings();
    void writerRefusesOversizeMessages();
    void readerRoundTripsAndMarksSender();
    void readerDropsWhatIsNotAShareMessage();
    void readerStaysInsideMalformedDatagrams();
    void repeatedKeysAreRefusedUnparsed();
};

void tShareDatagramTest::writerProducesExactBytes()
{
    const tEncodedShareDatagram encoded = EncodeShareDatagram(ShareDatagram::cShareWithdrawn, ChartShare());
    QVERIFY(encoded.fits);
    const QByteArray expected = QByteArray::fromHex("78563412" "0100" "0200" "e803" "0100" "0100" "0b00" "0600" "0300")
        + QByteArray("/media/vol\0Chart\0SD\0", 20) + cJsonAll;
    QCOMPARE(encoded.datagram, expected);
    QCOMPARE(encoded.jsonLength, cJsonAll.size());

    // All strings empty: 20 + 1 + 1 + 1 bytes before the JSON, which then has no "CodeName".
    const tEncodedShareDatagram empty = EncodeShareDatagram(ShareDatagram::cSharePresent, tNfsData());
    const QByteArray expectedEmpty = QByteArray::fromHex("78563412" "0100" "0100" "e803" "0000" "0000" "0100" "0100" "0100"
                                                         "000000")
        + cJsonNoCodeName;
    QCOMPARE(empty.datagram, expectedEmpty);
    QCOMPARE(empty.datagram.size() - cJsonNoCodeName.size(), 23);
}

void tShareDatagramTest::writerCutsNonAsciiStrings()
{
    tNfsData share;
    share.source = QStringLiteral("/k\u00e4rt"); // 5 characters, 6 bytes of UTF-8
    share.name = QStringLiteral("N");
    const QByteArray datagram = EncodeShareDatagram(ShareDatagram::cSharePresent, share).datagram;
    QCOMPARE(datagram.mid(14, 2), QByteArray::fromHex("0600"));
    // Six bytes are copied: the text without its NUL, which is lost with the cut.
    QCOMPARE(datagram.mid(20, 8), QByteArray("/k\xc3\xa4rtN\0", 8));

    // The reader reads to the first NUL, so the cut string runs into the next
    // one, while the length field still finds the next string's start.
    const tDecodedShareMessage message = Decode(datagram);
    QCOMPARE(message.share.source, QStringLiteral("10.0.0.7:/k\u00e4rtN"));
    QCOMPARE(message.share.name, QStringLiteral("N"));
}

void tShareDatagramTest::writerRefusesOversizeMessages()
{
    tNfsData share;
    share.source = QString(1480, QLatin1Char('a'));
    const tEncodedShareDatagram encoded = EncodeShareDatagram(ShareDatagram::cSharePresent, share);
    QVERIFY(!encoded.fits);
    QVERIFY(encoded.datagram.isEmpty());
    QCOMPARE(encoded.jsonLength, cJsonNoCodeName.size());

    // Exactly 1500 bytes still fit.
    share.source = QString(1500 - 23 - cJsonNoCodeName.size(), QLatin1Char('a'));
    const tEncodedShareDatagram largest = EncodeShareDatagram(ShareDatagram::cSharePresent, share);
    QVERIFY(largest.fits);
    QCOMPARE(largest.datagram.size(), 1500);
}

void tShareDatagramTest::readerRoundTripsAndMarksSender()
{
    bool isShare = false;
    const tDecodedShareMessage message =
        Decode(EncodeShareDatagram(ShareDatagram::cSharePresent, ChartShare()).datagram, &isShare);
    QVERIFY(isShare);
    QCOMPARE(message.type, quint16(ShareDatagram::cSharePresent));
    tNfsData expected = ChartShare();
    expected.source = QStringLiteral("10.0.0.7:/media/vol");
    QCOMPARE(message.share, expected);
    QVERIFY(message.jsonValid);

    // Any non-zero read-only word means read-only; an empty code name reads back empty.
    QByteArray datagram = EncodeShareDatagram(ShareDatagram::cSharePresent, tNfsData()).datagram;
    datagram[13] = 1;
    QVERIFY(Decode(datagram).share.readOnly);
    QCOMPARE(Decode(datagram).share.codeName, QString());
}

void tShareDatagramTest::readerDropsWhatIsNotAShareMessage()
{
    const QByteArray good = EncodeShareDatagram(ShareDatagram::cSharePresent, ChartShare()).datagram;
    bool isShare = true;

    QByteArray swapped = good;
    swapped.replace(0, 4, QByteArray::fromHex("12345678"));
    Decode(swapped, &isShare);
    QVERIFY(!isShare);

    Decode(QByteArray(1, '\0'), &isShare); // the keep-alive byte
    QVERIFY(!isShare);

    // Shorter than the header: magic or not, nothing more can be read.
    for (int size = 0; size < ShareDatagram::cHeaderSize; ++size) {
        isShare = true;
        Decode(good.left(size), &isShare);
        QVERIFY2(!isShare, qPrintable(QString::number(size)));
    }
}

void tShareDatagramTest::readerStaysInsideMalformedDatagrams()
{
    const QByteArray header = QByteArray::fromHex("78563412" "0100" "0100" "e803" "0000" "0000");

    // JSON start exactly at the end: processed, with empty JSON fields.
    bool isShare = false;
    tDecodedShareMessage message = Decode(header + QByteArray::fromHex("0200" "0200" "0200") + QByteArray("a\0b\0c\0", 6), &isShare);
    QVERIFY(isShare);
    QVERIFY(!message.jsonPresent);
    QCOMPARE(message.share.source, QStringLiteral("10.0.0.7:a"));
    QCOMPARE(message.share.detail, QStringLiteral("c"));
    QCOMPARE(message.share.contentId, QString());

    // Length fields far past the end: later strings are empty, no JSON.
    message = Decode(header + QByteArray::fromHex("ffff" "ffff" "ffff") + "abc", &isShare);
    QVERIFY(isShare);
    QCOMPARE(message.share.source, QStringLiteral("10.0.0.7:abc"));
    QCOMPARE(message.share.name, QString());
    QVERIFY(!message.jsonPresent);

    // A last string without NUL ends at the datagram's end.
    message = Decode(header + QByteArray::fromHex("0100" "0100" "0900") + QByteArray("\0\0unended", 9), &isShare);
    QCOMPARE(message.share.detail, QStringLiteral("unended"));

    // JSON that does not parse: warned about by the listener, fields left empty.
    message = Decode(header + QByteArray::fromHex("0100" "0100" "0100") + QByteArray(3, '\0') + "{\"ContentID\":", &isShare);
    QVERIFY(isShare);
    QVERIFY(message.jsonPresent);
    QVERIFY(!message.jsonValid);
    QCOMPARE(message.share.contentId, QString());

    // A single byte of JSON area is the dropped newline: nothing left to parse.
    message = Decode(header + QByteArray::fromHex("0100" "0100" "0100") + QByteArray("\0\0\0\n", 4), &isShare);
    QVERIFY(message.jsonPresent);
    QVERIFY(!message.jsonValid);

    // Unknown types are still decoded; the listener decides what to do.
    message = Decode(QByteArray::fromHex("78563412" "0100" "0700") + QByteArray(14, '\0'), &isShare);
    QVERIFY(isShare);
    QCOMPARE(message.type, quint16(7));
}

// Qt's parser leaks a repeated key's earlier container value: such text from
// outside must never reach it, however the repetition is spelled.
void tShareDatagramTest::repeatedKeysAreRefusedUnparsed()
{
    QVERIFY(RepeatsAKey("{\"a\":[1],\"a\":[1]}"));
    QVERIFY(RepeatsAKey("{\"m\":{\"x\":1,\"b\":{},\"\\u0078\":[2]}}"));
    QVERIFY(RepeatsAKey("{\"k\\\"}{\":1,\"k\\\"}{\":2"));
    QVERIFY(!RepeatsAKey("{\"a\":{\"a\":{\"a\":1}},\"b\":[\"a\",\"a\"],\"c\":\"\\\"a\\\":1,\\\"a\\\"\"}"));
    QVERIFY(!RepeatsAKey("{\"message\":{\"type\":\"datasource\",\"content\":{\"dataunmount\":{\"path\":\"/mnt/x\"}}}}"));

    const QByteArray header = QByteArray::fromHex("78563412" "0100" "0100" "e803" "0000" "0000");
    const tDecodedShareMessage message = Decode(header + QByteArray::fromHex("0100" "0100" "0100") + QByteArray(3, '\0')
                                                + "{\"ContentID\":\"C1\",\"Extra\":[1],\"Extra\":[2]}\n");
    QVERIFY(message.jsonPresent);
    QVERIFY(!message.jsonValid);
    QCOMPARE(message.share.contentId, QString());
}

QTEST_GUILESS_MAIN(tShareDatagramTest)
#include "tst_sharedatagram.moc"
