#pragma once

#include <QCoreApplication>

#include <optional>

// What the command line asks before anything else starts: the help or the version, which
// need no display and end the process, and a hint when the host passed nothing at all
// (start-up goes on then, with empty values, as the host may mean it), or an argument no
// key of which it knows.
class CommandLine
{
    Q_DECLARE_TR_FUNCTIONS(CommandLine)
public:
    // The status to end the process with, when the command line asked only for words.
    static std::optional<int> handle(int argc, char **argv);

    static QString help();
    static QString version();
    static QString usageHint();
    static QString unknownArgument(const QString &argument);
};
