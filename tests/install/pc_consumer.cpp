// Built by hand with the flags of the installed pkg-config file: the runtime's and the client
// library's headers and libraries are found.
#include <stdio.h>

#include "TezaStatus.h"
#include "rk.h"

int main() {
    TezaStatus status;
    rk_elem_t* elem = rk_elem_new("pc");
    const bool ok = elem != NULL && status.status == TezaStatus::Success;
    rk_elem_free(elem);
    printf("pkg-config build %s\n", ok ? "works" : "fails");
    return ok ? 0 : 1;
}
