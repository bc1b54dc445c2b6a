#include "metrics_text.h"

namespace tezad {

const char kMetricsContentType[] = "text/plain; version=0.0.4; charset=utf-8";

namespace {

// A label value with backslash, double quote and line end escaped.
std::string Escaped(const std::string& value) {
    std::string escaped;
    for (char c : value) {
        if (c == '\\') {
            escaped += "\\\\";
        } else if (c == '"') {
            escaped += "\\\"";
        } else if (c == '\n') {
            escaped += "\\n";
        } else {
            escaped += c;
        }
    }
    return escaped;
}

void Family(std::string* text, const char* name, const char* type, const char* help) {
    *text += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

}  // namespace

std::string MetricsText(const Counters& counters) {
    std::string text;
    Family(&text, "tezad_connections_total", "counter", "Connections accepted since the start.");
    text += "tezad_connections_total " + std::to_string(counters.connections) + "\n";
    Family(&text, "tezad_open_connections", "gauge", "Connections open now.");
    text += "tezad_open_connections " + std::to_string(counters.openConnections) + "\n";
    Family(&text, "tezad_calls_total", "counter", "Calls answered, per API.");
    for (const auto& api : counters.callsPerApi) {
        text += "tezad_calls_total{api=\"" + Escaped(api.first) + "\"} " +
                std::to_string(api.second) + "\n";
    }
    Family(&text, "tezad_tls_sessions_resumed_total", "counter",
           "TLS handshakes that resumed an earlier session.");
    text +=
        "tezad_tls_sessions_resumed_total " + std::to_string(counters.tlsSessionsResumed) + "\n";
    return text;
}

}  // namespace tezad
