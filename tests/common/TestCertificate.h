#pragma once

#include "TestAgent.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <optional>

// A certificate for 127.0.0.1 made at test time with the openssl command line, with one
// of the faults an agent's own certificate can have; nothing if openssl fails.
enum class CertificateFault { selfSigned, expired, notYetValid };
inline std::optional<TestAgent::Tls> makeCertificate(CertificateFault fault)
{
    QTemporaryDir dir;
    const char *dates = fault == CertificateFault::expired       ? "20200101000000Z 20200102000000Z"
                        : fault == CertificateFault::notYetValid ? "20400101000000Z 20410101000000Z"
                                                                 : "20200101000000Z 20400101000000Z";
    // The agent's own key signs its certificate for 127.0.0.1, valid between the dates.
    const QString script = QStringLiteral(
        "set -e\n"
        "openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout agent.key -out agent.csr "
        "-subj '/CN=127.0.0.1' 2>/dev/null\n"
        "touch index.txt; echo 01 > serial\n"
        "printf '[ca]\\ndefault_ca=c\\n[c]\\ndatabase=index.txt\\nnew_certs_dir=.\\nserial=serial\\n"
        "default_md=sha256\\npolicy=p\\nunique_subject=no\\n[p]\\ncommonName=supplied\\n' > ca.cnf\n"
        "set -- %1\n"
        "openssl ca -batch -config ca.cnf -selfsign -keyfile agent.key -in agent.csr -out agent.pem "
        "-startdate $1 -enddate $2 2>/dev/null\n")
        .arg(QLatin1String(dates));
    QProcess shell;
    shell.setWorkingDirectory(dir.path());
    shell.start(QStringLiteral("sh"), {QStringLiteral("-c"), script});
    if (!shell.waitForFinished(60000) || shell.exitCode() != 0)
        return std::nullopt;
    QFile key(dir.filePath("agent.key")), cert(dir.filePath("agent.pem"));
    if (!key.open(QIODevice::ReadOnly) || !cert.open(QIODevice::ReadOnly))
        return std::nullopt;
    TestAgent::Tls tls{QSslCertificate(cert.readAll(), QSsl::Pem), QSslKey(key.readAll(), QSsl::Ec, QSsl::Pem)};
    if (tls.certificate.isNull() || tls.key.isNull())
        return std::nullopt;
    return tls;
}
