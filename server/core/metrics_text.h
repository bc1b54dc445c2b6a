// tezad's own counters in the Prometheus text exposition format (version 0.0.4), served at
// GET /metrics:
//
//   tezad_connections_total          connections accepted since the start (counter)
//   tezad_open_connections           connections open now (gauge)
//   tezad_calls_total{api="..."}     calls answered, per API (counter)
//   tezad_tls_sessions_resumed_total TLS handshakes that resumed a session (counter)
#ifndef TEZAD_CORE_METRICS_TEXT_H_
#define TEZAD_CORE_METRICS_TEXT_H_

#include <string>

#include "service_core.h"

namespace tezad {

// The Content-Type of the text.
extern const char kMetricsContentType[];  // "text/plain; version=0.0.4; charset=utf-8"

std::string MetricsText(const Counters& counters);

}  // namespace tezad

#endif  // TEZAD_CORE_METRICS_TEXT_H_
