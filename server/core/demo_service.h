// The demo service of tezad: accounts, and jobs submitted for them, on a node. Small and
// neutral, it shows what a TEZA API carries: nested records (an account's address), arrays
// (tags, job arguments), an encrypted secret, booleans and numbers, and failures whose
// reasons hold XML's special characters. docs/tezad.md lists its APIs.
//
// Thread-safe: every member is guarded by `_mutex`.
#ifndef TEZAD_CORE_DEMO_SERVICE_H_
#define TEZAD_CORE_DEMO_SERVICE_H_

#include <stdint.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "service_core.h"

namespace tezad {

enum DemoError : int {
    kErrInvalid = 15101,   // an argument is missing or invalid
    kErrNotFound = 15102,  // no such account or job
    kErrExists = 15103,    // the account exists already
    kErrState = 15104,     // the account or job is not in a state that allows the call
    kErrSecret = 15105,    // the secret cannot be decrypted
};

class DemoService {
  public:
    // Adds the demo APIs to `core`. This object must outlive the core.
    void Install(ServiceCore* core);

  private:
    struct Account {
        int64_t id = 0;
        std::string name;
        std::string fullName;
        int64_t quota = 0;
        bool enabled = true;
        bool hasSecret = false;
        std::string secret;
        bool hasAddress = false;
        std::string street;
        std::string city;
        std::vector<std::string> tags;
    };
    struct Job {
        int64_t id = 0;
        std::string account;
        std::string command;
        std::vector<std::string> arguments;
        int64_t priority = 0;
        std::string state;
    };

    ElemPtr AccountCreate(const Args& args);
    ElemPtr AccountGet(const Args& args);
    ElemPtr AccountList(const Args& args);
    ElemPtr AccountDelete(const Args& args);
    ElemPtr AccountVerifySecret(const Args& args);
    ElemPtr JobSubmit(const Args& args);
    ElemPtr JobGet(const Args& args);
    ElemPtr JobList(const Args& args);
    ElemPtr JobCancel(const Args& args);

    // REQUIRES: `_mutex` held.
    Account& FindAccount(const std::string& name);
    Job& FindJob(int64_t id);

    std::mutex _mutex;
    std::map<std::string, Account> _accounts;
    std::map<int64_t, Job> _jobs;
    int64_t _lastAccountId = 0;
    int64_t _lastJobId = 0;
};

}  // namespace tezad

#endif  // TEZAD_CORE_DEMO_SERVICE_H_
