// teza-call --hosts: the same call to every server of a list, at most --parallel at once, on
// the fan-out facility (TezaFanOut) with one interface object per call. The list is read
// before anything is sent; the outcome of every host is printed in the order of the list, one
// line each or one JSON document, then a summary.
#ifndef TEZA_CALL_HOSTS_H_
#define TEZA_CALL_HOSTS_H_

#include <stddef.h>
#include <stdio.h>

#include <functional>
#include <istream>
#include <string>
#include <vector>

#include "api_description.h"
#include "rk.h"

namespace teza_call {

// One line of a hosts file.
struct HostEntry {
    std::string host;  // a name or an address, an IPv6 address without its brackets
    int port = 0;
    int line = 0;  // from 1
    // "host:port", or "[address]:port" for an IPv6 address.
    std::string Label() const;
};

// Reads a hosts file: one "host", "host:port", "[IPv6 address]:port" or bare IPv6 address a
// line; "#" starts a comment that runs to the end of the line; blanks around an entry and
// blank lines are ignored. A host without a port takes `defaultPort`, which 0 means there is
// none. False, with "NAME:LINE: what is wrong" in `error`, at the first line that is not one
// host, or when the file names no host at all.
bool ReadHosts(std::istream& in, const std::string& name, int defaultPort,
               std::vector<HostEntry>* hosts, std::string* error);

// What every host's call shares.
struct HostsCall {
    std::string api;
    int major = 1;
    int minor = 21;
    int style = RK_STYLE_NONE;
    int serverType = RK_SERVER_TYPE_NODE;
    bool tls = false;
    std::string login;
    std::string password;
    int timeout = 60;  // seconds, for connecting and for each call
    size_t parallel = 32;
    int deadline = 0;     // seconds; 0: none
    bool checked = true;  // ask each server for the API's description first
    bool json = false;
    // Fills `request` (an element named after the API) from the command line's arguments and
    // --input, checked by `description` when the server described the API (null otherwise).
    // False with the reason in `error`. Called on worker threads, concurrently.
    std::function<bool(const ApiDescription* description, rk_elem_t* request, std::string* error)>
        build;
};

// Calls every host and prints their outcomes and the summary on `out`. Returns the exit
// status: 0 when every host passed, 1 when one failed or was not run. REQUIRES: the client
// library is started, with the process-wide TLS files set when there are any.
int CallHosts(const std::vector<HostEntry>& hosts, const HostsCall& call, FILE* out);

}  // namespace teza_call

#endif  // TEZA_CALL_HOSTS_H_
