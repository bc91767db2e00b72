// The wire: messages as bytes, frames as messages and their type byte, and which handler
// a received frame reaches.
#include "Frame.h"
#include "FileTime.h"
#include "FrameHandler.h"
#include "LogCapture.h"
#include "LogText.h"
#include "SecretMask.h"
#include "Messages.h"
#include "Support.h"

#include <QTimeZone>
#include <QTest>

namespace {

// Each call as "handler payload-in-hex".
struct RecordingHandler : FrameHandler
{
    QStringList calls;
    void handleFormListRespose(const QByteArray &p) override { calls << "formList " + p.toHex(); }
    void handleDataRequest(const QByteArray &p) override { calls << "dataRequest " + p.toHex(); }
    void handleContentRequest(const QByteArray &p) override { calls << "contentRequest " + p.toHex(); }
    void handleContentResponse(const QByteArray &p) override { calls << "contentResponse " + p.toHex(); }
    void handleFormatDataResponse(const QByteArray &p) override { calls << "formatDataResponse " + p.toHex(); }
};

} // namespace

class TestProtocol : public QObject
{
    Q_OBJECT
private slots:
    void serializedBytes_data();
    void serializedBytes();
    void dispatch_data();
    void dispatch();
    void fileTimes_data();
    void fileTimes();
    void logTexts();
};

// The bytes on the wire, written down here by hand rather than by the code under test.
void TestProtocol::serializedBytes_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QByteArray>("expected");

    FileSDK::FileDescriptorw descriptor;
    descriptor.set_nfilesizelow(5);
    QTest::newRow("descriptor with only nFileSizeLow") << kx::serialize(descriptor) << hex("58 05");
    FileSDK::CliprdrFormatDataRequest zeroHeader;
    *zeroHeader.mutable_header() = kx::makeHeader(0, 0, 0, 0);
    QTest::newRow("present all-zero header is still written") << kx::serialize(zeroHeader) << hex("0a 00");
    QTest::newRow("range query past 4 GiB: both halves")
        << kx::serialize(kx::makeContentsQuery(3, 1, 2, (quint64(1) << 32) + 262144, 262144))
        << hex("10 03 18 01 20 02 28 80 80 10 30 01 38 80 80 10");
}

void TestProtocol::serializedBytes()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QByteArray, expected);
    QCOMPARE(bytes.toHex(' '), expected.toHex(' '));
}

void TestProtocol::dispatch_data()
{
    QTest::addColumn<QByteArray>("frame");
    QTest::addColumn<QString>("call"); // none for a frame that is dropped
    QTest::addColumn<QString>("logLine");
    QTest::newRow("01 alone is an empty format list") << hex("01") << "formList " << "收到formatListRequest";
    QTest::newRow("03 alone reaches the data request") << hex("03") << "dataRequest " << "收到dataRequest";
    QTest::newRow("type 5") << hex("10 07 05") << "contentRequest 1007" << "";
    QTest::newRow("the last byte decides") << hex("10 07 20 01 06") << "contentResponse 10072001" << "";
    QTest::newRow("type 7") << hex("0a 00 07") << "formatDataResponse 0a00" << "";
    for (const char *dropped : {"", "00", "0a 00 02", "0a 00 04", "0a 00 09", "ff"})
        QTest::addRow("dropped: %s", dropped) << hex(dropped) << "" << "";
}

void TestProtocol::dispatch()
{
    QFETCH(QByteArray, frame);
    QFETCH(QString, call);
    QFETCH(QString, logLine);
    LogCapture log;
    RecordingHandler recorder;
    kx::dispatchFrame(frame, recorder);
    QCOMPARE(recorder.calls, call.isEmpty() ? QStringList() : QStringList{call});
    QCOMPARE(log.lines(), logLine.isEmpty() ? QStringList() : QStringList{logLine});
}

// Windows FILETIMEs: whole seconds since 1601, the fraction dropped even before 1970.
void TestProtocol::fileTimes_data()
{
    QTest::addColumn<QDateTime>("date");
    QTest::addColumn<quint64>("expected");
    QTest::newRow("2020, fraction dropped") << QDateTime(QDate(2020, 1, 1), QTime(0, 0, 0, 750), QTimeZone::utc()) << Q_UINT64_C(132223104000000000);
    QTest::newRow("half a second before 1970") << QDateTime::fromMSecsSinceEpoch(-500, QTimeZone::utc()) << Q_UINT64_C(116444735990000000);
    QTest::newRow("a whole second before 1970") << QDateTime::fromMSecsSinceEpoch(-1000, QTimeZone::utc()) << Q_UINT64_C(116444735990000000);
    QTest::newRow("before 1601") << QDateTime(QDate(1500, 1, 1), QTime(0, 0), QTimeZone::utc()) << Q_UINT64_C(0);
    QTest::newRow("no date") << QDateTime() << Q_UINT64_C(0);
}

void TestProtocol::fileTimes()
{
    QFETCH(QDateTime, date);
    QFETCH(quint64, expected);
    QCOMPARE(kx::fileTime(date), expected);
    if (expected) // and back, for the modification time of a pasted file
        QCOMPARE(kx::timespecFromFileTime(expected).tv_sec, date.toSecsSinceEpoch() - (date.toMSecsSinceEpoch() % 1000 < 0));
}

// Numbers in the log read back as the same double; names from the remote side never
// break a line.
void TestProtocol::logTexts()
{
    for (const auto &[number, text] : QList<std::pair<double, QString>>{
             {0.8738133333333333, "0.8738133333333333"}, {1.0, "1.0"}, {0.25, "0.25"}, {0.0001, "0.0001"},
             {1.5e-05, "1.5e-05"}, {123456789.0, "123456789.0"}, {1e16, "1e+16"}})
        QCOMPARE(kx::decimalText(number), text);
    QCOMPARE(kx::maskedWithin("Maximum framesize exceeded: x", "x"), "Maximum framesize exceeded: …");
    QCOMPARE(kx::maskedWithin("GET /abcdefgh1 HTTP/1.1", "abcdefgh1"), "GET /abcd… HTTP/1.1");
    QCOMPARE(kx::escapedName(QStringLiteral("d\\a\n\t\r\x1b[31m 日本 ü") + QChar(0x2028)), "d\\a\\n\\t\\r\\x1b[31m 日本 ü\\x2028");
}

QTEST_GUILESS_MAIN(TestProtocol)
#include "tst_protocol.moc"
