#include "CommandLine.h"

#include "LaunchArguments.h"

#include <cstdio>
#include <cstring>

namespace {

void print(std::FILE *to, const QString &text)
{
    const QByteArray bytes = text.toLocal8Bit();
    std::fwrite(bytes.constData(), 1, std::size_t(bytes.size()), to);
    std::fflush(to);
}

} // namespace

std::optional<int> CommandLine::handle(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0)
            return print(stdout, help()), 0;
        if (std::strcmp(argv[i], "--version") == 0)
            return print(stdout, version()), 0;
    }
    if (argc <= 1)
        print(stderr, usageHint());
    // Start-up goes on (a host may pass more than it needs), but a typing slip is said.
    for (int i = 1; i < argc; ++i) {
        const QString argument = QString::fromLocal8Bit(argv[i]);
        if (LaunchArguments::keyOf(argument) == LaunchArguments::Key::none)
            print(stderr, unknownArgument(argument));
    }
    return std::nullopt;
}

QString CommandLine::help()
{
    return tr("Usage: kx-clipboard ip,… port,… token,… cid,… [window,N] [pin,SHA256] [paste,files]\n"
              "Copies files both ways between this desktop and a remote Windows desktop.\n"
              "The remote desktop's host application starts it with these arguments:\n"
              "  ip,SCHEME://HOST  the remote agent's address: ws:// or wss://, then the host\n"
              "  port,PORT         the remote agent's port\n"
              "  token,TOKEN       the access token; the log shows only its first characters\n"
              "  cid,ID            the connection's identifier\n"
              "  window,N          optional: a paste keeps N file requests under way (1 to 64)\n"
              "  pin,SHA256        optional: accept only the wss certificate of this SHA-256\n"
              "  paste,files       optional: remote files are pasted with the file manager's own Ctrl+V\n"
              "  --help            print this help and end\n"
              "  --version         print the version and end\n");
}

QString CommandLine::version()
{
    return QStringLiteral("kx-clipboard %1\n").arg(QStringLiteral(KX_VERSION));
}

QString CommandLine::unknownArgument(const QString &argument)
{
    return tr("kx-clipboard: “%1” is no launch argument, and is ignored; the host application passes "
              "ip,… port,… token,… cid,… (kx-clipboard --help says more)\n").arg(argument);
}

QString CommandLine::usageHint()
{
    return tr("kx-clipboard: no launch arguments; the host application passes ip,… port,… token,… cid,… "
              "(kx-clipboard --help says more)\n");
}
