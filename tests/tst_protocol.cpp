#include "Frame.h"
#include "FrameHandler.h"
#include "LogCapture.h"
#include "Messages.h"

#include <QTest>

#include <functional>

namespace {

QByteArray hex(const char *text)
{
    return QByteArray::fromHex(QByteArray(text).replace(' ', ""));
}

struct RecordingHandler : FrameHandler
{
    QStringList calls;
    QList<QByteArray> payloads;
    void record(const char *name, const QByteArray &payload)
    {
        calls.append(QString::fromLatin1(name));
        payloads.append(payload);
    }
    void handleFormListRespose(const QByteArray &p) override { record("formList", p); }
    void handleDataRequest(const QByteArray &p) override { record("dataRequest", p); }
    void handleContentRequest(const QByteArray &p) override { record("contentRequest", p); }
    void handleContentResponse(const QByteArray &p) override { record("contentResponse", p); }
    void handleFormatDataResponse(const QByteArray &p) override { record("formatDataResponse", p); }
};

} // namespace

class TestProtocol : public QObject
{
    Q_OBJECT
private slots:
    void serializedBytes_data();
    void serializedBytes();
    void localCopyFormatListFrame();
    void clientTypeFrame();
    void emptyBufferParsesAsDefault();
    void unknownFieldsSurviveRoundTrip();
    void dispatch_data();
    void dispatch();
};

void TestProtocol::serializedBytes_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QByteArray>("expected");

    FileSDK::CliprdrFileContentsRequest sizeQuery;
    sizeQuery.set_streamid(7);
    sizeQuery.set_dwflags(1);
    sizeQuery.set_cbrequested(8);
    QTest::newRow("size query without header") << kx::serialize(sizeQuery) << hex("10 07 20 01 38 08");

    FileSDK::FileDescriptorw descriptor;
    descriptor.set_nfilesizelow(5);
    QTest::newRow("descriptor with only nFileSizeLow") << kx::serialize(descriptor) << hex("58 05");

    FileSDK::CliprdrFormat group;
    group.set_formatid(49346);
    QTest::newRow("format id 49346") << kx::serialize(group) << hex("08 c2 81 03");

    FileSDK::CliprdrFormat contents;
    contents.set_formatid(49327);
    QTest::newRow("format id 49327") << kx::serialize(contents) << hex("08 af 81 03");

    FileSDK::CliprdrFormatDataRequest zeroHeader;
    *zeroHeader.mutable_header() = kx::makeHeader(0, 0, 0, 0);
    QTest::newRow("present all-zero header is still written") << kx::serialize(zeroHeader) << hex("0a 00");

    FileSDK::MacCliprdrFormatDataResponse twoDescriptors;
    twoDescriptors.add_filedes()->set_nfilesizelow(1);
    twoDescriptors.add_filedes()->set_nfilesizelow(2);
    QTest::newRow("repeated descriptors, one field each, in order")
        << kx::serialize(twoDescriptors) << hex("12 02 58 01 12 02 58 02");
}

void TestProtocol::serializedBytes()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QByteArray, expected);
    QCOMPARE(bytes.toHex(' '), expected.toHex(' '));
}

void TestProtocol::localCopyFormatListFrame()
{
    FileSDK::CliprdrFormatList list;
    *list.mutable_header() = kx::makeHeader(1, 1, 1, 1);
    list.set_numformats(2);
    auto *group = list.add_formats();
    group->set_formatid(49346);
    group->set_formatname("FileGroupDescriptorW");
    auto *contents = list.add_formats();
    contents->set_formatid(49327);
    contents->set_formatname("FileContents");
    const QByteArray frame = kx::encodeFrame(list, FrameType::formatList);
    const QByteArray expected = hex("0a 08 08 01 10 01 18 01 20 01 10 02 1a 1a 08 c2 81 03 12 14 46 69 6c 65 47 72 6f 75 70 "
                                    "44 65 73 63 72 69 70 74 6f 72 57 1a 12 08 af 81 03 12 0c 46 69 6c 65 43 6f 6e 74 65 "
                                    "6e 74 73 01");
    QCOMPARE(frame.size(), 61);
    QCOMPARE(frame.toHex(' '), expected.toHex(' '));
}

void TestProtocol::clientTypeFrame()
{
    QCOMPARE(kx::clientTypeFrame(), QByteArray(1, '\0'));
}

void TestProtocol::emptyBufferParsesAsDefault()
{
    const auto list = kx::parseMessage<FileSDK::CliprdrFormatList>(QByteArray());
    QVERIFY(list);
    QVERIFY(!list->has_header());
    QCOMPARE(list->numformats(), 0u);
    QCOMPARE(list->formats_size(), 0);
    QCOMPARE(list->header().connid(), 0u); // an absent header reads as zeros

    QVERIFY(!kx::parseMessage<FileSDK::CliprdrFormatList>(hex("0a 05 08")));
}

void TestProtocol::unknownFieldsSurviveRoundTrip()
{
    // CliprdrFormat with formatId 1 and an unknown field 15 (varint 3).
    const QByteArray bytes = hex("08 01 78 03");
    const auto format = kx::parseMessage<FileSDK::CliprdrFormat>(bytes);
    QVERIFY(format);
    QCOMPARE(format->formatid(), 1u);
    QCOMPARE(kx::serialize(*format).toHex(' '), bytes.toHex(' '));
}

void TestProtocol::dispatch_data()
{
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<QString>("handler");
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<QString>("logLine");

    QTest::newRow("01 alone is an empty format list") << hex("01") << "formList" << QByteArray() << "收到formatListRequest";
    QTest::newRow("03 alone reaches the data request") << hex("03") << "dataRequest" << QByteArray() << "收到dataRequest";
    QTest::newRow("type 5") << hex("10 07 05") << "contentRequest" << hex("10 07") << "";
    QTest::newRow("last byte decides: a request payload ending in 06")
        << hex("10 07 20 01 06") << "contentResponse" << hex("10 07 20 01") << "";
    QTest::newRow("type 7") << hex("0a 00 07") << "formatDataResponse" << hex("0a 00") << "";
    QTest::newRow("empty frame") << QByteArray() << "" << QByteArray() << "";
    QTest::newRow("client type echoed back") << hex("00") << "" << QByteArray() << "";
    QTest::newRow("02 with a valid payload") << hex("0a 00 02") << "" << QByteArray() << "";
    QTest::newRow("04 with a valid payload") << hex("0a 00 04") << "" << QByteArray() << "";
    QTest::newRow("09") << hex("0a 00 09") << "" << QByteArray() << "";
    QTest::newRow("ff") << hex("ff") << "" << QByteArray() << "";
}

void TestProtocol::dispatch()
{
    QFETCH(QByteArray, frame);
    QFETCH(QString, handler);
    QFETCH(QByteArray, payload);
    QFETCH(QString, logLine);

    LogCapture log;
    RecordingHandler recorder;
    kx::dispatchFrame(frame, recorder);
    if (handler.isEmpty()) {
        QVERIFY(recorder.calls.isEmpty());
        QVERIFY(log.lines().isEmpty());
        return;
    }
    QCOMPARE(recorder.calls, QStringList{handler});
    QCOMPARE(recorder.payloads.first().toHex(), payload.toHex());
    QCOMPARE(log.lines(), logLine.isEmpty() ? QStringList() : QStringList{logLine});
}

QTEST_GUILESS_MAIN(TestProtocol)
#include "tst_protocol.moc"
