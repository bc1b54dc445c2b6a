// TezaServerHealthChecker: a node health checker that an application may plug into the
// library, and TezaServerHealthCheckerRegistry, which holds the single registered checker and
// the process-wide default for whether new descriptors should use health checking. The
// library supplies no checker; with none registered every server counts as healthy.
#ifndef TEZA_SERVER_HEALTH_CHECKER_H_
#define TEZA_SERVER_HEALTH_CHECKER_H_

#include <string>

#include "TezaUtil.h"

class TEZA_API TezaServerHealthChecker {
  public:
    // True when the server `host` is healthy. Called with the registry's mutex held, so it
    // must not call back into the registry.
    virtual bool isHealthy(const std::string& host) = 0;
    virtual ~TezaServerHealthChecker();
};

// Static members only. The checker is guarded by a process-wide mutex held for the whole check,
// so checks are serialised; the default flag is a single boolean read and written without it.
class TEZA_API TezaServerHealthCheckerRegistry {
  public:
    TezaServerHealthCheckerRegistry() = delete;

    // Replaces the registered checker; null unregisters. The checker is not owned: it must
    // outlive its registration and is never deleted by the registry.
    static void registerHealthChecker(TezaServerHealthChecker* checker);
    // True when no checker is registered, else the checker's answer.
    static bool isServerHealthy(const std::string& host);

    // The default for the code that builds descriptors; false until set.
    static bool useHealthCheckerByDefault();
    static void setUseHealthCheckerByDefault(bool use);
};

#endif  // TEZA_SERVER_HEALTH_CHECKER_H_
