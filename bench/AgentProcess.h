#pragma once

// The agent simulator as a child process, for programs that drive the real engine against
// it over loopback (benchmarks and the soak). Its "agent: ..." lines are counted as they
// come, not kept, so a long run does not grow with them.
#include <QEventLoop>
#include <QHash>
#include <QProcess>
#include <QRegularExpression>
#include <QTimer>

#include <functional>

#ifdef Q_OS_LINUX
#include <csignal>
#include <sys/prctl.h>
#endif

// Runs the event loop until the predicate holds. QTest::qWaitFor naps between its
// turns, which would be measured as transfer time.
inline bool runUntil(const std::function<bool()> &predicate, int timeoutMs)
{
    QEventLoop loop;
    QTimer check;
    QObject::connect(&check, &QTimer::timeout, &loop, [&] {
        if (predicate())
            loop.quit();
    });
    check.start(1);
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    if (!predicate())
        loop.exec();
    return predicate();
}

class AgentProcess
{
public:
    explicit AgentProcess(const QStringList &arguments)
    {
        m_process.setProcessChannelMode(QProcess::MergedChannels);
        QObject::connect(&m_process, &QProcess::readyRead, [this] { readLines(); });
#ifdef Q_OS_LINUX
        // A run ended by a signal or qFatal skips the destructor: the simulator ends with it.
        m_process.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
#endif
        m_process.start(QStringLiteral(KX_AGENT_SIM), arguments);
        if (!waitFor(QStringLiteral("listening on"), 1, 10000))
            qFatal("the agent simulator did not start");
    }
    ~AgentProcess()
    {
        m_process.kill();
        m_process.waitForFinished();
    }
    QString port() const { return m_port; }
    // How many lines so far contained the text; only texts asked for before are counted.
    int count(const QString &text)
    {
        if (!m_counts.contains(text))
            m_counts.insert(text, 0);
        return m_counts.value(text);
    }
    bool waitFor(const QString &text, int count, int ms)
    {
        this->count(text);
        return runUntil([&] { return m_counts.value(text) >= count; }, ms);
    }
    void command(const char *line) { m_process.write(QByteArray(line) + '\n'); }

private:
    void readLines()
    {
        while (m_process.canReadLine()) {
            const QString line = QString::fromUtf8(m_process.readLine());
            for (auto it = m_counts.begin(); it != m_counts.end(); ++it)
                it.value() += line.contains(it.key()) ? 1 : 0;
            static const QRegularExpression listening(QStringLiteral("listening on \\S+:(\\d+)"));
            if (const auto match = listening.match(line); match.hasMatch())
                m_port = match.captured(1);
        }
    }

    QProcess m_process;
    QString m_port;
    QHash<QString, int> m_counts{{QStringLiteral("listening on"), 0}};
};
