#include "AgentSimulator.h"
#include "FrameAllocator.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>

#include <cstdio>

int main(int argc, char *argv[])
{
    kx::keepFrameBuffersMapped();
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("A simulated remote clipboard agent for the clipboard companion."));
    parser.addHelpOption();
    parser.addOptions({
        {"host", "Address to listen on.", "address", "127.0.0.1"},
        {"port", "Port to listen on (0: any free port, printed).", "port", "0"},
        {"tls", "Serve wss with a self-signed certificate made at start."},
        {"offer", "Offer this folder's tree for a paste on the local side.", "dir"},
        {"inbox", "Fetch whatever the companion announces into this folder.", "dir"},
        {"rtt-ms", "Delay every answer by this many milliseconds.", "ms", "0"},
        {"drop-after-bytes", "Drop the connection once this many bytes were served.", "bytes", "-1"},
        {"offer-name", "Also offer a 4-byte file under this exact remote name.", "name"},
        {"reorder", "Answer the file-contents queries that arrive together last first."},
        {"attack", "Play a hostile agent: big-binary, big-text, unasked-list, huge-list, empty-files, format-lists, newer-copy, "
                   "silent, second-copy, flood-queries, range-every, list-thrice, long-reply.", "name"},
    });
    parser.process(app);

    AgentSimulator::Options options;
    options.host = parser.value("host");
    options.port = quint16(parser.value("port").toUInt());
    options.tls = parser.isSet("tls");
    options.offerDir = parser.value("offer");
    options.inboxDir = parser.value("inbox");
    options.rttMs = parser.value("rtt-ms").toInt();
    options.dropAfterBytes = parser.value("drop-after-bytes").toLongLong();
    options.extraNames = parser.values("offer-name");
    options.reorder = parser.isSet("reorder");
    options.attack = parser.value("attack");

    AgentSimulator simulator(options);
    QString error;
    if (!simulator.start(&error)) {
        std::fprintf(stderr, "agent: %s\n", error.toUtf8().constData());
        return 1;
    }
    QSocketNotifier input(0, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &simulator, [&] {
        char line[256];
        if (!std::fgets(line, sizeof line, stdin)) {
            input.setEnabled(false);
            return;
        }
        simulator.command(QString::fromUtf8(line).trimmed());
    });
    return app.exec();
}
