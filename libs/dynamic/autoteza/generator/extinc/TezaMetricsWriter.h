// TezaMetricsWriter: the registered API trackers (TezaTrackerRegistry) in the Prometheus text
// exposition format (version 0.0.4), for a monitoring system to scrape. Each API is one series
// of each metric, labelled with its family and API name:
//
//   # HELP teza_api_successes_total API calls that succeeded.
//   # TYPE teza_api_successes_total counter
//   teza_api_successes_total{family="account",api="account-get"} 12
//
// The metrics are teza_api_successes_total, teza_api_failures_total,
// teza_api_flagged_successes_total, teza_api_flagged_failures_total (counters) and
// teza_api_trace_level (a gauge). Families with no registered tracker still get their HELP
// and TYPE lines. Any thread may call it; it reads the registry as TezaTrackerRegistry::read.
#ifndef TEZA_METRICS_WRITER_H_
#define TEZA_METRICS_WRITER_H_

#include <string>
#include <vector>

#include "TezaTrackerRegistry.h"
#include "TezaUtil.h"

class TEZA_API TezaMetricsWriter {
  public:
    // The Content-Type under which an HTTP server sends the text.
    static const char* const CONTENT_TYPE;  // "text/plain; version=0.0.4; charset=utf-8"

    // The text for every tracker registered now.
    static std::string prometheusText();
    // The text for `readings`, in their order.
    static std::string prometheusText(const std::vector<TezaTrackerRegistry::Reading>& readings);

    // A label value with backslash, double quote and line end escaped as the format requires.
    static std::string escapeLabelValue(const std::string& value);

    TezaMetricsWriter() = delete;
};

#endif  // TEZA_METRICS_WRITER_H_
