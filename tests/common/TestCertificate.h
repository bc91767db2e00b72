#pragma once

#include "TestAgent.h"

#include <optional>

// A certificate for 127.0.0.1 made at test time with the openssl command line, with one
// of the faults an agent's own certificate can have; nothing if openssl fails.
enum class CertificateFault { selfSigned, expired, notYetValid, otherHost, unknownIssuer };
std::optional<TestAgent::Tls> makeCertificate(CertificateFault fault);
