// Fuzzes TezaServerConnection::xcdr_frombytes, the reader of a descriptor's tagged text form.
//
// Filter: the reader stops the process with the assertion "end>start" on purpose when the
// first opening tag of a key it looks at is directly followed by the first closing tag of that
// key (an empty element), so that such an element is never accepted. Inputs with an empty
// first element for any key the reader can look at are skipped. The set is a little wider than
// the keys one particular text makes the reader look at ("_useQuarantine" is only looked at
// without "_useHealthChecker", the three newer time-outs only without "_timeout"); skipping a
// few inputs the reader would have accepted costs nothing.
//
// A text that reads completely is written again and read into a descriptor that started out
// like the first one; both must agree on everything but the two time-outs, which the written
// "_timeout" element sets to 180 on purpose. That holds when no string value holds a "<": a
// value is written without escaping, and a "<" in it could look like another key's tag.

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include "TezaServerConnection.h"

namespace {

void Check(bool condition, const char* what) {
    if (!condition) {
        fprintf(stderr, "descriptor_text_fuzzer: invariant broken: %s\n", what);
        abort();
    }
}

// Every key xcdr_frombytes may look for; "_useIpCache" is written but never read.
const char* const kReadKeys[] = {
    "_host",
    "_majorVersion",
    "_minorVersion",
    "_style",
    "_type",
    "_transport",
    "_port",
    "_login",
    "_password",
    "_cachable",
    "_useHealthChecker",
    "_useQuarantine",
    "_timeout",
    "_callTimeout",
    "_connectTimeout",
    "_healthPingTimeout",
};

bool HasEmptyFirstElement(const std::string& text) {
    for (const char* key : kReadKeys) {
        const std::string open = std::string("<") + key + ">";
        size_t at = text.find(open);
        if (at == std::string::npos) {
            continue;
        }
        const std::string close = std::string("</") + key + ">";
        if (text.compare(at + open.size(), close.size(), close) == 0) {
            return true;
        }
    }
    return false;
}

TezaServerConnection Initial() {
    return TezaServerConnection(
        "initial", 1, 2, TezaServerConnection::STYLE_NONE, TezaServerConnection::TRANSPORT_HTTP, 4,
        TezaServerConnection::SERVER_TYPE_NODE, 5, 6, "login", "password", 7);
}

bool HasLessThan(const std::string& text) {
    return text.find('<') != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    if (HasEmptyFirstElement(input)) {
        return 0;
    }

    TezaServerConnection first = Initial();
    std::string text = input;
    bool complete = first.xcdr_frombytes(text);
    Check(text == input, "the reader leaves its input as it was");

    std::string written;
    first.xcdr_2bytes(written);
    if (!complete) {
        return 0;
    }
    Check(!first.getHost().empty() && !first.getLogin().empty(),
          "a complete read has a host and a login");
    // The password has no getter; it takes part through the written texts below.
    if (HasLessThan(first.getHost()) || HasLessThan(first.getLogin()) ||
        written.find("<_password>") == std::string::npos) {
        return 0;
    }
    size_t passwordStart = written.find("<_password>") + 11;
    size_t passwordEnd = written.find("</_password>", passwordStart);
    if (HasLessThan(written.substr(passwordStart, passwordEnd - passwordStart))) {
        return 0;
    }

    TezaServerConnection second = Initial();
    // The health-ping time-out is not read when "_timeout" is present: it stays the receiver's.
    second.setHealthPingTimeout(first.getHealthPingTimeout());
    std::string again = written;
    Check(second.xcdr_frombytes(again), "a written descriptor reads back completely");
    Check(second.getCallTimeout() == 180 && second.getConnectTimeout() == 180,
          "the written \"_timeout\" sets both time-outs");
    Check(second.getHost() == first.getHost() && second.getLogin() == first.getLogin() &&
              second.getMajorVersion() == first.getMajorVersion() &&
              second.getMinorVersion() == first.getMinorVersion() &&
              second.getStyle() == first.getStyle() &&
              second.getServerType() == first.getServerType() &&
              second.getTransport() == first.getTransport() &&
              second.getPort() == first.getPort() && second.isCachable() == first.isCachable() &&
              second.useHealthChecker() == first.useHealthChecker() &&
              second.useIpCache() == first.useIpCache() &&
              second.getHealthPingTimeout() == first.getHealthPingTimeout(),
          "a written descriptor reads back the same");

    first.setCallTimeout(180);
    first.setConnectTimeout(180);
    std::string expected;
    first.xcdr_2bytes(expected);
    std::string rewritten;
    second.xcdr_2bytes(rewritten);
    Check(rewritten == expected, "the descriptor read back writes the same text");
    return 0;
}
