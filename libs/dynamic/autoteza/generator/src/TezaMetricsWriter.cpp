// TezaMetricsWriter: one metric family after another, each with its HELP and TYPE lines and
// one sample per API.
#include "TezaMetricsWriter.h"

#include <stdint.h>

#include <string>

const char* const TezaMetricsWriter::CONTENT_TYPE = "text/plain; version=0.0.4; charset=utf-8";

namespace {

struct __Metric {
    const char* name;
    const char* help;
    const char* type;
    uint64_t (*value)(const TezaTrackerRegistry::Reading& reading);
};

const __Metric __metrics[] = {
    {"teza_api_successes_total", "API calls that succeeded.", "counter",
     [](const TezaTrackerRegistry::Reading& r) { return r.successes; }},
    {"teza_api_failures_total", "API calls that failed, on the server or on the way to it.",
     "counter", [](const TezaTrackerRegistry::Reading& r) { return r.failures; }},
    {"teza_api_flagged_successes_total", "Succeeded API calls counted with the flag set.",
     "counter", [](const TezaTrackerRegistry::Reading& r) { return r.flaggedSuccesses; }},
    {"teza_api_flagged_failures_total", "Failed API calls counted with the flag set.", "counter",
     [](const TezaTrackerRegistry::Reading& r) { return r.flaggedFailures; }},
    {"teza_api_trace_level", "Trace level of the API's tracker (0 to 4).", "gauge",
     [](const TezaTrackerRegistry::Reading& r) {
         return static_cast<uint64_t>(r.traceLevel < 0 ? 0 : r.traceLevel);
     }},
};

}  // namespace

std::string TezaMetricsWriter::escapeLabelValue(const std::string& value) {
    std::string escaped;
    escaped.reserve(value.size());
    for (char c : value) {
        switch (c) {
            case '\\':
                escaped += "\\\\";
                break;
            case '"':
                escaped += "\\\"";
                break;
            case '\n':
                escaped += "\\n";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

std::string TezaMetricsWriter::prometheusText() {
    return prometheusText(TezaTrackerRegistry::read());
}

std::string TezaMetricsWriter::prometheusText(
    const std::vector<TezaTrackerRegistry::Reading>& readings) {
    std::string text;
    for (const __Metric& metric : __metrics) {
        text += "# HELP ";
        text += metric.name;
        text += ' ';
        text += metric.help;
        text += "\n# TYPE ";
        text += metric.name;
        text += ' ';
        text += metric.type;
        text += '\n';
        for (const TezaTrackerRegistry::Reading& reading : readings) {
            text += metric.name;
            text += "{family=\"";
            text += escapeLabelValue(reading.family);
            text += "\",api=\"";
            text += escapeLabelValue(reading.api);
            text += "\"} ";
            text += std::to_string(metric.value(reading));
            text += '\n';
        }
    }
    return text;
}
