#include "runtime_fixture.h"

#include <stdio.h>

#include "TezaConnectionCache.h"
#include "TezaServerHealthChecker.h"

namespace testsupport {

void ResetRuntime() {
    // Scripts of the finished test must not reach the clean-up; handles the runtime still
    // holds become unknown to the double, which answers their close with success.
    rkdouble::Reset();
    testclock::UseRealClock();
    // Every probe passes now, so each quarantined server leaves the map.
    TezaServerConnection::probeQuarantinedServers();
    TezaServerConnection::cleanup();
    TezaConnectionCache::cleanup();
    TezaServerHealthCheckerRegistry::registerHealthChecker(nullptr);
    TezaServerHealthCheckerRegistry::setUseHealthCheckerByDefault(false);
    rkdouble::Reset();
}

TezaServerConnection Descriptor(const std::string& host, int port, unsigned connectTimeout) {
    return TezaServerConnection(
        host, 1, 21, TezaServerConnection::STYLE_CERTIFICATE, TezaServerConnection::TRANSPORT_HTTP,
        port, TezaServerConnection::SERVER_TYPE_CLUSTER, 60, connectTimeout, "admin", "secret", 5);
}

std::string PointerText(const void* pointer) {
    char text[64];
    snprintf(text, sizeof(text), "%p", pointer);
    return text;
}

}  // namespace testsupport
