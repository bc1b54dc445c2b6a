// TezaStatus: the outcome of an operation that talks to a server: a status, a reason text and
// an error number. A plain value; copy it freely.
#ifndef TEZA_STATUS_H_
#define TEZA_STATUS_H_

#include <string>
#include <utility>

#include "TezaUtil.h"

class TEZA_API TezaStatus {
  public:
    // The numbers are stable; 2 is deliberately unused. Any non-zero status is a failure.
    enum ReturnStatus { Success = 0, ApiFailed = 1, ConnectionFailed = 3 };

    TezaStatus() : status(Success), errnum(0) {}
    // The parameters are named apart from the members so that code built with -Wshadow
    // includes this header cleanly.
    TezaStatus(ReturnStatus outcome, std::string why, int number)
        : status(outcome), reason(std::move(why)), errnum(number) {}
    TezaStatus(const TezaStatus&) = default;
    TezaStatus& operator=(const TezaStatus&) = default;
    ~TezaStatus() = default;

    ReturnStatus status;
    std::string reason;  // empty on success
    int errnum;          // from the server or the connection layer; 0 on success
};

#endif  // TEZA_STATUS_H_
