// Built by hand with the flags of the installed pkg-config file: the runtime's and the client
// library's headers and libraries are found. A program without generated code defines the two
// functions the runtime calls itself, as an empty schema's teza_globals.cpp would.
#include <stdio.h>

#include <string>

#include "TezaNamespaceFactory.h"
#include "TezaTracer.h"
#include "TezaWrapper.h"
#include "rk.h"

void TezaNamespaceFactory::registerDefaultTypeFactory() {}

namespace TezaNS_depot {
TezaTracer* getTezaTracker(int, int) {
    return nullptr;
}
}  // namespace TezaNS_depot

int main() {
    std::string error;
    const bool started = TezaWrapper::init(error);
    TezaWrapper::cleanup();
    rk_elem_t* elem = rk_elem_new("pc");
    const bool ok = started && elem != NULL;
    rk_elem_free(elem);
    printf("pkg-config build %s\n", ok ? "works" : "fails");
    return ok ? 0 : 1;
}
