// Calls a greeter served in this process through librk's in-process transport: the request
// is built by a generated record, sent by a generated interface, and the answer read back into
// a generated record. Prints the greeting; exits non-zero when anything fails.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "TezaServerConnection.h"
#include "TezaWrapper.h"
#include "greeter.h"
#include "rk.h"

namespace {

// Answers the version probe, and greet with "Hello, NAME" once per <times>.
rk_elem_t* Answer(void*, const rk_inprocess_call_t*, rk_elem_t* request) {
    rk_elem_t* result = rk_results_new_passed();
    if (strcmp(rk_elem_get_name(request), "greet") != 0) {
        return result;
    }
    const char* name = rk_child_get_string(request, "name");
    const char* times = rk_child_get_string(request, "times");
    std::string message;
    for (int i = 0; i < (times != nullptr ? atoi(times) : 1); ++i) {
        message += std::string(message.empty() ? "" : " ") + "Hello, " + (name ? name : "?");
    }
    rk_elem_t* languages = rk_elem_child(request, "languages");
    message +=
        " (" + std::to_string(languages ? rk_elem_child_count(languages) : 0) + " languages)";
    rk_child_add_string(result, "message", message.c_str());
    return result;
}

}  // namespace

int main() {
    if (rk_inprocess_register("greeter-node", Answer, nullptr) == 0) {
        return 1;
    }
    std::string error;
    if (!TezaWrapper::init(error)) {
        fprintf(stderr, "init: %s\n", error.c_str());
        TezaWrapper::cleanup();
        return 1;
    }
    int status = 1;
    {
        TezaServerConnection server("greeter-node", 1, 0, TezaServerConnection::STYLE_NONE,
                                    TezaServerConnection::TRANSPORT_IN_PROCESS, 0,
                                    TezaServerConnection::SERVER_TYPE_NODE, 10, 10, "", "", 5);
        greeter::GreeterInterface greeterApi(server);
        greeter::Greeting greeting;
        greeting.setName("installed world");
        greeting.setTimes(2);
        greeting.setLanguages({"en", "fr", "de"});
        greeter::GreetingReply reply;
        TezaStatus result = greeterApi.greet(greeting, reply);
        std::string message;
        if (result.status == TezaStatus::Success && reply.getMessage(message)) {
            printf("%s\n", message.c_str());
            status = 0;
        } else {
            fprintf(stderr, "greet failed: %d %s\n", result.errnum, result.reason.c_str());
        }
        uint64_t successes = greeter::GreeterFamily::getTracker(greeter::GreeterFamily::API_GREET)
                                 ->getCounter()
                                 .getSuccesses();
        printf("greet successes: %llu\n", static_cast<unsigned long long>(successes));
    }
    TezaWrapper::cleanup();
    rk_inprocess_unregister("greeter-node");
    return status;
}
