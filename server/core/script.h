// Scripted answers and faults, read from a text file, for tests of clients.
//
// One rule a line; "#" starts a comment, blank lines are skipped:
//
//   <api> [delay=<ms>] [times=<n>] <action> [<arguments>]
//
// <api> is an API name or "*" for any API. A call takes the first rule, in file order, that
// names its API (or "*") and has calls left: a rule with times=<n> answers <n> calls and then
// gives way to the rules below it; a rule without times answers every call. delay=<ms> waits
// that long before acting. The actions:
//
//   pass [<xml>]            a passed result; <xml> (optional) is its children
//   fail <errno> <reason>   a failed result with that error number and reason (plain text)
//   echo                    a passed result holding the request as the server received it
//   http <status> [<text>]  that HTTP status, with <text> as a plain-text body
//   raw <text>              HTTP 200 with <text> as the body, as it stands
//   malformed               HTTP 200 with a body that is not well-formed XML
//   truncated               HTTP 200 announcing a whole result, half of which is sent before
//                           the connection is closed
//   drop                    the connection is closed without an answer
//   refuse                  the connection is reset (TCP RST) without an answer
//
// Rules are fixed once loaded; only their counts change, under a mutex.
#ifndef TEZAD_CORE_SCRIPT_H_
#define TEZAD_CORE_SCRIPT_H_

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "elements.h"

namespace tezad {

struct ScriptAction {
    enum class Kind { Pass, Fail, Echo, Http, Raw, Malformed, Truncated, Drop, Refuse };
    Kind kind = Kind::Pass;
    std::chrono::milliseconds delay{0};
    int number = 0;                 // Fail: the error number; Http: the status
    std::string text;               // Fail: the reason; Http, Raw: the body
    rk_elem_t* children = nullptr;  // Pass: a results element whose children to answer with
};

class Script {
  public:
    // Reads a script file. On failure returns null and "<file>:<line>: <what>" in `error`.
    static std::unique_ptr<Script> Load(const std::string& path, std::string* error);
    // Reads a script text; `origin` names it in messages.
    static std::unique_ptr<Script> Parse(const std::string& text, const std::string& origin,
                                         std::string* error);

    // The action for the next call of `api`, counted as used; nothing when no rule applies.
    // The action's `children` stays owned by the script.
    std::optional<ScriptAction> Next(const std::string& api);

  private:
    struct Rule {
        std::string api;
        int remaining = -1;  // -1: unlimited; guarded by `_mutex`
        ScriptAction action;
        ElemPtr children;
    };
    Script() = default;

    std::mutex _mutex;
    std::vector<Rule> _rules;
};

}  // namespace tezad

#endif  // TEZAD_CORE_SCRIPT_H_
