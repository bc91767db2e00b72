#include "ClipBoardManager.h"
#include "FakePasteboard.h"
#include "KXFileManager.h"
#include "LogCapture.h"
#include "ScriptedChooser.h"
#include "SocketManager.h"
#include "EngineSession.h"
#include "TestAgent.h"

#include <QDirIterator>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>

using PasteStatus = ClipBoardManager::PasteStatus;
using Request = FileSDK::CliprdrFileContentsRequest;
using Response = FileSDK::CliprdrFileContentsResponse;
using Descriptors = QList<FileSDK::FileDescriptorw>;


using FormatEntries = QList<std::pair<int, QString>>;

namespace {

QStringList entriesBelow(const QString &root)
{
    QStringList entries;
    QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext())
        entries.append(it.next().mid(root.size()));
    entries.sort();
    return entries;
}

} // namespace

class TestPaste : public QObject
{
    Q_OBJECT
private slots:
    void init();
    void cleanup();
    void creationConnectsAndSendsClientType();
    void formatListChoosesTheDescriptorFormat_data();
    void formatListChoosesTheDescriptorFormat();
    void pasteWithoutRemoteCopyDoesNothing();
    void twoFilesExchangeQueryByQuery();
    void chunking_data();
    void chunking();
    void sizesAboveFourGiBUseTheHighHalf();
    void folderEntriesAndListIndex();
    void onlyFoldersEndsWithoutCallback();
    void emptyReplyIsRepeatedAfterAWait();
    void cancelWhileSizeQueryIsOut();
    void cancelDuringRetryWaitEndsThePaste();
    void nextPasteAfterCancelStartsAtZero();
    void disconnectDuringDownload();
    void startPasteWhileDownloadingReplacesCallbacks();
    void treeArrivesByteIdentical();
    void traversalNamesAreRefused_data();
    void traversalNamesAreRefused();
    void malformedRepliesAndStrayStreams();
    void chooserCancelledEndsThePaste();
    void secondListWhileChoosingIsIgnored();
    void disconnectWhileChoosingDownloadsNothing();

private:
    std::unique_ptr<EngineSession> s;
};

void TestPaste::init()
{
    s = std::make_unique<EngineSession>();
    QVERIFY(s->start());
}

void TestPaste::cleanup()
{
    s.reset();
}

void TestPaste::creationConnectsAndSendsClientType()
{
    s.reset();
    LogCapture log;
    s = std::make_unique<EngineSession>();
    QVERIFY(s->start());
    const QString url = s->agent.url(QStringLiteral("tok"));
    QCOMPARE(s->engine->urlText(), url);
    QCOMPARE(log.lines().first(), QStringLiteral("开始连接url:") + url);
    QTRY_VERIFY(log.contains(QStringLiteral("send clienType success")));
    QVERIFY(log.contains(QStringLiteral("data.count:1")));
    QCOMPARE(s->engine->pasteStatus(), PasteStatus::start);
    QVERIFY(!s->agent.nextFrame(200)); // the client type frame is the only one
}

void TestPaste::formatListChoosesTheDescriptorFormat_data()
{
    QTest::addColumn<FormatEntries>("formats");
    QTest::addColumn<bool>("withHeader");
    QTest::addColumn<QByteArray>("expectedFrame");

    using F = FormatEntries;
    QTest::newRow("contents then descriptors")
        << F{{49327, "FileContents"}, {49346, "FileGroupDescriptorW"}} << true << QByteArray::fromHex("0a06080310022007" "10c28103" "03");
    QTest::newRow("two descriptor entries: the later wins")
        << F{{100, "FileGroupDescriptorW"}, {200, "FileGroupDescriptorW"}} << true << QByteArray::fromHex("0a06080310022007" "10c801" "03");
    QTest::newRow("no descriptor entry") << F{{49327, "FileContents"}} << true << QByteArray::fromHex("0a06080310022007" "03");
    QTest::newRow("header-less list: zero header still written") << F{{49346, "FileGroupDescriptorW"}} << false
                                                                  << QByteArray::fromHex("0a0010c2810303");
    QTest::newRow("empty format list frame") << F{} << false << QByteArray::fromHex("0a0003");
}

void TestPaste::formatListChoosesTheDescriptorFormat()
{
    QFETCH(FormatEntries, formats);
    QFETCH(bool, withHeader);
    QFETCH(QByteArray, expectedFrame);

    FileSDK::CliprdrFormatList list;
    if (withHeader)
        *list.mutable_header() = kx::makeHeader(3, 2, 0, 7);
    list.set_numformats(std::uint32_t(formats.size()));
    for (const auto &[id, name] : formats) {
        auto *format = list.add_formats();
        format->set_formatid(std::uint32_t(id));
        format->set_formatname(name.toStdString());
    }
    LogCapture log;
    s->engine->setPasteStatus(PasteStatus::complete);
    QVERIFY(s->remoteCopy(list));
    QCOMPARE(s->engine->pasteStatus(), PasteStatus::start);
    QVERIFY(s->engine->hasFormList());
    QVERIFY(log.contains(QStringLiteral("windwos 按下 ctrol+ c handleFormListRespose")));
    s->paste();
    QCOMPARE(s->engine->pasteStatus(), PasteStatus::pasting);
    const auto frame = s->agent.nextFrame();
    QVERIFY(frame);
    QCOMPARE(frame->toHex(' '), expectedFrame.toHex(' '));
    QTRY_VERIFY(log.contains(QStringLiteral("向widows发送control + v成功")));
}

void TestPaste::pasteWithoutRemoteCopyDoesNothing()
{
    s->paste();
    QVERIFY(!s->agent.nextFrame(300));
    QVERIFY(s->progress.isEmpty() && s->completions.isEmpty());

    // An undecodable format list is as if none had arrived.
    s->agent.send(QByteArray::fromHex("0a0501"));
    QTRY_COMPARE(s->pasteboard.clears, 1);
    QVERIFY(!s->engine->hasFormList());
    s->paste();
    QVERIFY(!s->agent.nextFrame(300));
}

void TestPaste::twoFilesExchangeQueryByQuery()
{
    const QByteArray a = pattern(300000, 1);
    QVERIFY(s->remoteCopy());
    s->paste();
    QVERIFY(s->offer({TestAgent::fileDescriptor("A.bin", 300000), TestAgent::fileDescriptor("B.txt", 0)}));

    const auto sizeQuery = s->nextQuery();
    QVERIFY(sizeQuery);
    QVERIFY(!sizeQuery->has_header());
    QVERIFY(sizeQuery->streamid() <= 9);
    QCOMPARE(sizeQuery->listindex(), 0u);
    QCOMPARE(sizeQuery->dwflags(), 1u);
    QCOMPARE(sizeQuery->cbrequested(), 8u);
    QCOMPARE(sizeQuery->npositionlow() + sizeQuery->npositionhigh(), 0u);
    const std::uint32_t stream = sizeQuery->streamid();
    s->agent.sendMessage(rangeReply(stream, QByteArray(8, '\0')), FrameType::fileContentsResponse);

    std::uint32_t expectedOffset = 0;
    for (int range = 0; range < 2; ++range) {
        const auto query = s->nextQuery();
        QVERIFY(query);
        QVERIFY(!query->has_header());
        QCOMPARE(query->streamid(), stream);
        QCOMPARE(query->dwflags(), 2u);
        QCOMPARE(query->npositionlow(), expectedOffset);
        QCOMPARE(query->npositionhigh(), 0u);
        QCOMPARE(query->cbrequested(), 262144u);
        QVERIFY(!query->haveclipdataid());
        s->agent.sendMessage(rangeReply(stream, a.mid(expectedOffset, 262144)), FrameType::fileContentsResponse);
        expectedOffset += 262144;
    }
    QTRY_COMPARE(s->completions.size(), 1);
    QCOMPARE(s->completions.first(), std::make_pair(true, PastedError::noError));
    QCOMPARE(s->progress, (QList<double>{262144.0 / 300000.0, 1.0, 1.0}));
    QVERIFY(!s->agent.nextFrame(300)); // nothing asked for B, nothing past A's end
    QCOMPARE(readFile(s->dest + "/A.bin"), a);
    QCOMPARE(QFileInfo(s->dest + "/B.txt").size(), 0);
    QCOMPARE(s->engine->pasteStatus(), PasteStatus::complete);
    QVERIFY(!s->engine->hasFormList());
}

void TestPaste::chunking_data()
{
    QTest::addColumn<QList<qint64>>("sizes");
    QTest::addColumn<QList<std::uint32_t>>("rangeOffsets");
    QTest::addColumn<QList<double>>("progress");

    QTest::newRow("exactly one chunk") << QList<qint64>{262144} << QList<std::uint32_t>{0} << QList<double>{1.0, 1.0};
    QTest::newRow("one byte over a chunk") << QList<qint64>{262145} << QList<std::uint32_t>{0, 262144}
                                           << QList<double>{262144.0 / 262145.0, 1.0, 1.0};
    QTest::newRow("only empty files") << QList<qint64>{0, 0, 0} << QList<std::uint32_t>{} << QList<double>{1.0};
}

void TestPaste::chunking()
{
    QFETCH(QList<qint64>, sizes);
    QFETCH(QList<std::uint32_t>, rangeOffsets);
    QFETCH(QList<double>, progress);

    Descriptors descriptors;
    QHash<std::uint32_t, QByteArray> contents;
    for (qsizetype i = 0; i < sizes.size(); ++i) {
        descriptors.append(TestAgent::fileDescriptor(QStringLiteral("f%1").arg(i), std::uint64_t(sizes[i])));
        contents.insert(std::uint32_t(i), pattern(sizes[i], int(i)));
    }
    QVERIFY(s->pasteServed(descriptors, contents));
    QCOMPARE(s->completions.first(), std::make_pair(true, PastedError::noError));
    QList<std::uint32_t> offsets;
    for (const Request &query : s->agent.servedQueries()) {
        if (query.dwflags() == 2)
            offsets.append(query.npositionlow());
    }
    QCOMPARE(offsets, rangeOffsets);
    QCOMPARE(s->progress, progress);
    for (qsizetype i = 0; i < sizes.size(); ++i)
        QCOMPARE(readFile(s->dest + QStringLiteral("/f%1").arg(i)), contents[std::uint32_t(i)]);
}

void TestPaste::sizesAboveFourGiBUseTheHighHalf()
{
    LogCapture log;
    QVERIFY(s->remoteCopy());
    s->paste();
    auto big = TestAgent::fileDescriptor("big.bin", 0);
    big.set_nfilesizehigh(1);
    big.set_nfilesizelow(5);
    QVERIFY(s->offer({big}));
    const auto sizeQuery = s->nextQuery();
    QVERIFY(sizeQuery);
    QVERIFY(log.contains(QStringLiteral("此文件大小:4294967301")));
    QVERIFY(log.contains(QStringLiteral("总chunks:16385")));
    s->agent.sendMessage(rangeReply(sizeQuery->streamid(), QByteArray(8, '\0')), FrameType::fileContentsResponse);
    const auto first = s->nextQuery();
    QVERIFY(first);
    QCOMPARE(first->npositionlow(), 0u);
    QCOMPARE(first->npositionhigh(), 0u);
    // The high half only changes past 4 GiB; moving that much is the storage tests' job.
    QVERIFY(s->completions.isEmpty());
}

void TestPaste::folderEntriesAndListIndex()
{
    const QByteArray one("x");
    QVERIFY(s->pasteServed({TestAgent::fileDescriptor("d", 0, 0x10), TestAgent::fileDescriptor("d\\a.txt", 1),
                            TestAgent::fileDescriptor("e", 0, 0x2010), TestAgent::fileDescriptor("odd", 0, 0x30)},
                           {{1, one}}));
    QCOMPARE(s->completions.first(), std::make_pair(true, PastedError::noError));
    for (const Request &query : s->agent.servedQueries())
        QCOMPARE(query.listindex(), 1u);
    QCOMPARE(s->agent.answeredQueries(), 2);
    QCOMPARE(readFile(s->dest + "/d/a.txt"), one);
    QVERIFY(!QFileInfo::exists(s->dest + "/e")); // an empty remote folder is not created
    QVERIFY(QFileInfo(s->dest + "/odd").isFile()); // other attribute values are files
}

void TestPaste::onlyFoldersEndsWithoutCallback()
{
    LogCapture log;
    QVERIFY(s->remoteCopy());
    s->paste();
    QVERIFY(s->offer({TestAgent::fileDescriptor("a", 0, 0x10), TestAgent::fileDescriptor("a\\b", 0, 0x10)}));
    QTRY_VERIFY(log.contains(QStringLiteral("所有文件下载完成")));
    QCOMPARE(s->engine->pasteStatus(), PasteStatus::complete);
    QVERIFY(s->completions.isEmpty() && s->progress.isEmpty());
    QVERIFY(!s->agent.nextFrame(300));
}

void TestPaste::emptyReplyIsRepeatedAfterAWait()
{
    const QByteArray data = pattern(600000, 5);
    LogCapture log;
    QVERIFY(s->remoteCopy());
    s->paste();
    QVERIFY(s->offer({TestAgent::fileDescriptor("f", 600000)}));
    const auto sizeQuery = s->nextQuery();
    QVERIFY(sizeQuery);
    const std::uint32_t stream = sizeQuery->streamid();
    s->agent.sendMessage(rangeReply(stream, {}), FrameType::fileContentsResponse);
    for (std::uint32_t offset : {0u, 262144u}) {
        const auto query = s->nextQuery();
        QVERIFY(query);
        QCOMPARE(query->npositionlow(), offset);
        s->agent.sendMessage(rangeReply(stream, data.mid(offset, 262144)), FrameType::fileContentsResponse);
    }
    const auto third = s->nextQuery();
    QVERIFY(third);
    QCOMPARE(third->npositionlow(), 524288u);
    QElapsedTimer timer;
    timer.start();
    s->agent.sendMessage(rangeReply(stream, {}), FrameType::fileContentsResponse);
    const auto repeated = s->nextQuery();
    QVERIFY(repeated);
    QVERIFY2(timer.elapsed() >= 550, qPrintable(QString::number(timer.elapsed())));
    QCOMPARE(repeated->npositionlow(), 524288u);
    QCOMPARE(repeated->cbrequested(), 262144u);
    QTRY_VERIFY(log.contains(QStringLiteral("send requestContentRequestType3 success")));
    s->agent.sendMessage(rangeReply(stream, data.mid(524288)), FrameType::fileContentsResponse);
    QTRY_COMPARE(s->completions.size(), 1);
    QCOMPARE(readFile(s->dest + "/f"), data);
}

void TestPaste::cancelWhileSizeQueryIsOut()
{
    QVERIFY(s->remoteCopy());
    s->paste();
    QVERIFY(s->offer({TestAgent::fileDescriptor("f", 1000)}));
    const auto sizeQuery = s->nextQuery();
    QVERIFY(sizeQuery);
    s->engine->setPasteStatus(PasteStatus::cancel);
    s->agent.sendMessage(rangeReply(sizeQuery->streamid(), QByteArray(8, '\0')), FrameType::fileContentsResponse);
    QTRY_COMPARE(s->completions.size(), 1);
    QCOMPARE(s->completions.first(), std::make_pair(false, PastedError::cancelDownload));
    QVERIFY(!s->agent.nextFrame(300));
    QCOMPARE(s->engine->pasteStatus(), PasteStatus::complete);
    QVERIFY(!s->engine->hasFormList());
    QVERIFY(QFileInfo::exists(s->dest + "/f")); // the partial file stays
}

void TestPaste::cancelDuringRetryWaitEndsThePaste()
{
    QVERIFY(s->remoteCopy());
    s->paste();
    QVERIFY(s->offer({TestAgent::fileDescriptor("f", 1000)}));
    auto query = s->nextQuery();
    s->agent.sendMessage(rangeReply(query->streamid(), QByteArray(8, '\0')), FrameType::fileContentsResponse);
    query = s->nextQuery();
    LogCapture log;
    s->agent.sendMessage(rangeReply(query->streamid(), {}), FrameType::fileContentsResponse);
    // Once the empty reply is handled, the repeat is waiting on its timer.
    QTRY_VERIFY(log.containsPrefix(QStringLiteral("当前文件index:")));
    s->engine->setPasteStatus(PasteStatus::cancel);
    QTRY_COMPARE_WITH_TIMEOUT(s->completions.size(), 1, 3000);
    QCOMPARE(s->completions.first(), std::make_pair(false, PastedError::cancelDownload));
    QVERIFY(!s->agent.nextFrame(800)); // the repeat is not sent
}

void TestPaste::nextPasteAfterCancelStartsAtZero()
{
    const QByteArray data = pattern(700000, 2);
    QVERIFY(s->remoteCopy());
    s->paste();
    QVERIFY(s->offer({TestAgent::fileDescriptor("f", 700000)}));
    auto query = s->nextQuery();
    s->agent.sendMessage(rangeReply(query->streamid(), QByteArray(8, '\0')), FrameType::fileContentsResponse);
    query = s->nextQuery();
    s->agent.sendMessage(rangeReply(query->streamid(), data.first(262144)), FrameType::fileContentsResponse);
    query = s->nextQuery();
    QCOMPARE(query->npositionlow(), 262144u);
    s->engine->setPasteStatus(PasteStatus::cancel);
    s->agent.sendMessage(rangeReply(query->streamid(), data.mid(262144, 262144)), FrameType::fileContentsResponse);
    QTRY_COMPARE(s->completions.size(), 1);
    QCOMPARE(s->completions.first().second, PastedError::cancelDownload);

    QVERIFY(s->pasteServed({TestAgent::fileDescriptor("f", 700000)}, {{0, data}}));
    QCOMPARE(s->completions.last(), std::make_pair(true, PastedError::noError));
    QCOMPARE(s->agent.servedQueries().at(1).npositionlow(), 0u);
    QCOMPARE(readFile(s->dest + "/f"), data);
}

void TestPaste::disconnectDuringDownload()
{
    QVERIFY(s->remoteCopy());
    s->paste();
    QVERIFY(s->offer({TestAgent::fileDescriptor("f", 1000000)}));
    QVERIFY(s->nextQuery());
    s->agent.closeClient();
    QTRY_COMPARE_WITH_TIMEOUT(s->completions.size(), 1, 10000);
    QCOMPARE(s->completions.first(), std::make_pair(false, PastedError::websoketDisconnect));
    // The reconnection two seconds later sends the client type frame again.
    QTRY_COMPARE_WITH_TIMEOUT(s->agent.connections(), 2, 10000);
    const auto hello = s->agent.nextFrame();
    QVERIFY(hello && *hello == QByteArray(1, '\0'));
    QCOMPARE(s->completions.size(), 1);

    const QByteArray data = pattern(1000, 3);
    QVERIFY(s->pasteServed({TestAgent::fileDescriptor("f", 1000)}, {{0, data}}));
    QCOMPARE(s->completions.last(), std::make_pair(true, PastedError::noError));
    QCOMPARE(readFile(s->dest + "/f"), data);
}

void TestPaste::startPasteWhileDownloadingReplacesCallbacks()
{
    QVERIFY(s->remoteCopy());
    s->paste();
    QVERIFY(s->offer({TestAgent::fileDescriptor("f", 10)}));
    const auto sizeQuery = s->nextQuery();
    QVERIFY(sizeQuery);
    QList<std::pair<bool, PastedError>> second;
    s->engine->startPaste([](double) {}, [&](bool ok, PastedError error) { second.append({ok, error}); });
    QVERIFY(!s->agent.nextFrame(200)); // no new format data request while downloading
    s->agent.sendMessage(rangeReply(sizeQuery->streamid(), QByteArray(8, '\0')), FrameType::fileContentsResponse);
    const auto range = s->nextQuery();
    s->agent.sendMessage(rangeReply(range->streamid(), pattern(10, 1)), FrameType::fileContentsResponse);
    QTRY_COMPARE(second.size(), 1);
    QCOMPARE(second.first(), std::make_pair(true, PastedError::noError));
    QVERIFY(s->completions.isEmpty());
}

void TestPaste::treeArrivesByteIdentical()
{
    Descriptors descriptors;
    QHash<std::uint32_t, QByteArray> contents;
    auto add = [&](const QString &name, qint64 size, std::uint32_t attributes = 0x80) {
        if (attributes == 0x80)
            contents.insert(std::uint32_t(descriptors.size()), pattern(size, int(descriptors.size())));
        descriptors.append(TestAgent::fileDescriptor(name, std::uint64_t(size), attributes));
    };
    add("top", 0, 0x10);
    add("top\\a.txt", 1234);
    add("top\\empty.bin", 0);
    add("top\\sub", 0, 0x10);
    add("top\\sub\\deeper", 0, 0x10);
    add("top\\sub\\deeper\\große Datei.bin", 3 * 1000 * 1000);
    add("top\\sub\\日本語.txt", 262144 * 2 + 17);
    add("top\\empty folder", 0, 0x10);
    add("loose.txt", 5);
    QVERIFY(s->pasteServed(descriptors, contents));
    QCOMPARE(s->completions.first(), std::make_pair(true, PastedError::noError));
    for (auto it = contents.cbegin(); it != contents.cend(); ++it) {
        const QString name = QString::fromStdString(descriptors.at(it.key()).cfilename()).replace('\\', '/');
        QCOMPARE(readFile(s->dest + '/' + name), it.value());
    }
    QCOMPARE(s->progress.last(), 1.0);
    QVERIFY(!QFileInfo::exists(s->dest + "/top/empty folder"));
}

void TestPaste::traversalNamesAreRefused_data()
{
    QTest::addColumn<QString>("name");
    QTest::newRow("parent of parent") << "..\\..\\x";
    QTest::newRow("inside then out") << "a\\..\\..\\x";
    QTest::newRow("drive letter") << "C:\\x";
    QTest::newRow("absolute") << "/etc/x";
    QTest::newRow("forward slashes") << "a/../../x";
}

void TestPaste::traversalNamesAreRefused()
{
    QFETCH(QString, name);
    const QStringList outsideBefore = entriesBelow(s->root.path());
    QVERIFY(s->pasteServed({TestAgent::fileDescriptor("ok.txt", 2), TestAgent::fileDescriptor(name, 3)},
                           {{0, "ok"}, {1, "bad"}}));
    QCOMPARE(s->completions.first(), std::make_pair(false, PastedError::saveError));
    QStringList outsideAfter = entriesBelow(s->root.path());
    outsideAfter.removeAll(QStringLiteral("/inner/dest/ok.txt"));
    QCOMPARE(outsideAfter, outsideBefore);
    QVERIFY(!QFileInfo::exists(QStringLiteral("/etc/x")));

    // A following paste still works.
    QVERIFY(s->pasteServed({TestAgent::fileDescriptor("next.txt", 4)}, {{0, "next"}}));
    QCOMPARE(s->completions.last(), std::make_pair(true, PastedError::noError));
    QCOMPARE(readFile(s->dest + "/next.txt"), QByteArray("next"));
}

void TestPaste::malformedRepliesAndStrayStreams()
{
    LogCapture log;
    QVERIFY(s->remoteCopy());
    s->paste();
    QVERIFY(s->offer({TestAgent::fileDescriptor("f", 500000)}));
    auto query = s->nextQuery();
    const std::uint32_t stream = query->streamid();
    s->agent.sendMessage(rangeReply(stream, QByteArray(8, '\0')), FrameType::fileContentsResponse);
    query = s->nextQuery();
    QVERIFY(query);

    // A reply of another stream is ignored and logged; the paste waits for its own.
    s->agent.sendMessage(rangeReply(stream + 10, "garbage"), FrameType::fileContentsResponse);
    QTRY_VERIFY(log.containsPrefix(QStringLiteral("ignored a reply of stream ")));
    QVERIFY(!s->agent.nextFrame(200));

    // Short replies are written where the previous bytes end: no gap.
    const QByteArray data = pattern(500000, 8);
    std::uint32_t offset = 0;
    while (offset < 100000) {
        QCOMPARE(query->npositionlow(), offset);
        s->agent.sendMessage(rangeReply(stream, data.mid(offset, 40000)), FrameType::fileContentsResponse);
        offset += 40000;
        query = s->nextQuery();
        QVERIFY(query);
    }
    QCOMPARE(query->npositionlow(), offset);

    // An undecodable reply ends the paste.
    s->agent.send(QByteArray::fromHex("0a0506"));
    QTRY_COMPARE(s->completions.size(), 1);
    QCOMPARE(s->completions.first(), std::make_pair(false, PastedError::unKonwnError));
    QCOMPARE(readFile(s->dest + "/f"), data.first(offset));

    // An undecodable descriptor list opens no chooser.
    QVERIFY(s->remoteCopy());
    s->paste();
    QVERIFY(s->agent.next<FileSDK::CliprdrFormatDataRequest>(FrameType::formatDataRequest));
    s->agent.send(QByteArray::fromHex("120507"));
    QVERIFY(!QTest::qWaitFor([&] { return s->chooser->runs > 1; }, 300));

    QVERIFY(s->pasteServed({TestAgent::fileDescriptor("f", 500000)}, {{0, data}}));
    QCOMPARE(s->completions.last(), std::make_pair(true, PastedError::noError));
    QCOMPARE(readFile(s->dest + "/f"), data);
}

void TestPaste::chooserCancelledEndsThePaste()
{
    s->chooser->answer = FolderChoice{};
    QVERIFY(s->remoteCopy());
    s->paste();
    QVERIFY(s->offer({TestAgent::fileDescriptor("f", 10)}));
    QTRY_COMPARE(s->chooser->runs, 1);
    QCOMPARE(s->engine->pasteStatus(), PasteStatus::complete);
    QVERIFY(!s->engine->hasFormList());
    QVERIFY(s->completions.isEmpty());
    QVERIFY(!s->agent.nextFrame(300));
}

void TestPaste::secondListWhileChoosingIsIgnored()
{
    const QByteArray data = pattern(10, 4);
    s->chooser->whileOpen = [&] {
        // A real dialog spins the event loop: a second list arrives while it is up.
        FileSDK::MacCliprdrFormatDataResponse other;
        *other.add_filedes() = TestAgent::fileDescriptor("other", 5);
        s->agent.sendMessage(other, FrameType::formatDataResponse);
        QTest::qWait(200);
    };
    s->chooser->laterAnswers = {FolderChoice{}}; // whatever opens next is cancelled
    QVERIFY(s->pasteServed({TestAgent::fileDescriptor("mine", 10)}, {{0, data}}));
    QCOMPARE(s->chooser->maxDepth, 1);
    QCOMPARE(s->completions.first(), std::make_pair(true, PastedError::noError));
    QCOMPARE(readFile(s->dest + "/mine"), data);
    QVERIFY(!QFileInfo::exists(s->dest + "/other"));
}

void TestPaste::disconnectWhileChoosingDownloadsNothing()
{
    s->chooser->whileOpen = [&] {
        s->agent.closeClient();
        QVERIFY(QTest::qWaitFor([&] { return !s->completions.isEmpty(); }, 10000));
    };
    QVERIFY(s->remoteCopy());
    s->paste();
    QVERIFY(s->offer({TestAgent::fileDescriptor("f", 10)}));
    QTRY_COMPARE_WITH_TIMEOUT(s->completions.size(), 1, 10000);
    QCOMPARE(s->completions.first(), std::make_pair(false, PastedError::websoketDisconnect));
    QVERIFY(!QFileInfo::exists(s->dest + "/f"));
    QCOMPARE(s->engine->pasteStatus(), PasteStatus::complete);
}

QTEST_GUILESS_MAIN(TestPaste)
#include "tst_paste.moc"
