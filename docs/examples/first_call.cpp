// The examples of docs/first-call.md, each between a "// [name]" line and a "// [end]" line.
// The page quotes each example as it stands here, and shows what this program prints for it
// after a line "== name"; the test of the page (tests/docs/first_call_page_test.py) checks
// both. Everything outside the examples is the harness: tezad servers made for one example
// each, and small helpers the examples call.

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

#include "TezaConnectionCache.h"
#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "TezaWrapper.h"
#include "first_call.h"
#include "http_front_end.h"
#include "rk.h"
#include "script.h"
#include "service_core.h"

namespace {

using examples::ExamplesFamily;
using examples::ExamplesInterface;

// A tezad on 127.0.0.1 and a free port that knows the user admin with the password secret,
// serves API versions 1.0 to 1.21 as a node, and answers as `script` says (docs/tezad.md).
class Server {
  public:
    explicit Server(const std::string& script = "") : _core(Options()) {
        if (!script.empty()) {
            std::string error;
            std::unique_ptr<tezad::Script> parsed = tezad::Script::Parse(script, "example", &error);
            if (parsed == nullptr) {
                Fail("script: " + error);
            }
            _core.SetScript(std::move(parsed));
        }
        _frontEnd = std::make_unique<tezad::HttpFrontEnd>(&_core, tezad::HttpOptions());
        std::string error;
        if (!_frontEnd->Start(&error)) {
            Fail("tezad: " + error);
        }
    }
    int port() const { return _frontEnd->port(); }

  private:
    static tezad::CoreOptions Options() {
        tezad::CoreOptions options;
        options.major = 1;
        options.minor = 21;
        options.serverType = RK_SERVER_TYPE_NODE;
        options.users["admin"] = "secret";
        return options;
    }
    static void Fail(const std::string& what) {
        std::cerr << "first_call_examples: " << what << "\n";
        exit(1);
    }

    tezad::ServiceCore _core;
    std::unique_ptr<tezad::HttpFrontEnd> _frontEnd;
};

// A descriptor of `server` (or of nothing, on a port where nothing listens) as user admin.
TezaServerConnection Node(int port, const std::string& password = "secret") {
    return TezaServerConnection("127.0.0.1", 1, 21, TezaServerConnection::STYLE_LOGIN_PASSWORD,
                                TezaServerConnection::TRANSPORT_HTTP, port,
                                TezaServerConnection::SERVER_TYPE_NODE, 10, 10, "admin", password,
                                10);
}
TezaServerConnection Node(const Server& server, const std::string& password = "secret") {
    return Node(server.port(), password);
}

// A wrong password with which `right`'s descriptor (password secret) falls into the same bucket of
// the connection cache: the cache hashes host, version, style, server type, transport, port, login
// and password as h = h * 31 + value, 32 bits wrapping, into 203 buckets.
std::string SameBucket(const TezaServerConnection& right) {
    auto bucket = [&right](const std::string& password) {
        uint32_t h = 0;
        for (unsigned char c : right.getHost()) {
            h = h * 31 + c;
        }
        for (int value :
             {right.getMajorVersion(), right.getMinorVersion(), static_cast<int>(right.getStyle()),
              static_cast<int>(right.getServerType()), static_cast<int>(right.getTransport()),
              right.getPort()}) {
            h = h * 31 + static_cast<uint32_t>(value);
        }
        for (unsigned char c : right.getLogin() + password) {
            h = h * 31 + c;
        }
        return h % 203;
    };
    const uint32_t wanted = bucket("secret");  // the password of Node(server)
    for (int i = 0;; ++i) {
        std::string password = "wrong" + std::to_string(i);
        if (bucket(password) == wanted) {
            return password;
        }
    }
}

// A port on 127.0.0.1 where nothing listens (bound, then let go without listening).
int ClosedPort() {
    Server probe;
    return probe.port();
}

const char* StatusName(TezaStatus::ReturnStatus status) {
    switch (status) {
        case TezaStatus::Success:
            return "Success";
        case TezaStatus::ApiFailed:
            return "ApiFailed";
        case TezaStatus::ConnectionFailed:
            return "ConnectionFailed";
    }
    return "?";
}

// Prints a status as "<status> <errnum> <reason>".
void Report(const TezaStatus& status) {
    std::cout << StatusName(status.status) << " " << status.errnum;
    if (!status.reason.empty()) {
        std::cout << " " << status.reason;
    }
    std::cout << "\n";
}

// The output record of an API of the examples whose server answers with `children`.
TezaStatus Get(ExamplesInterface& api, examples::Numbers& out) {
    return api.numbersGet(out);
}
TezaStatus Get(ExamplesInterface& api, examples::Flags& out) {
    return api.flagsGet(out);
}
TezaStatus Get(ExamplesInterface& api, examples::Texts& out) {
    return api.textsGet(out);
}
// Closes every cached handle. The cache gives a handle of one server to a descriptor of
// another on the same host when both fall into one of its buckets (docs/first-call.md,
// "Cached connections"), so each example, and each server made for one, starts without any.
void EmptyTheCache() {
    TezaConnectionCache::cleanup();
    TezaConnectionCache::init();
}

template <class Record>
Record Answer(const std::string& children) {
    EmptyTheCache();
    Server server(std::string(Record::metaData().getName()) + "-get pass " + children);
    ExamplesInterface api(Node(server));
    Record record;
    TezaStatus status = Get(api, record);
    if (status.status != TezaStatus::Success) {
        Report(status);
    }
    return record;
}

// Runs `example` in a child process, its standard error sent to standard output, and says
// how the child ended.
template <class Example>
void InChild(Example example) {
    fflush(stdout);
    std::cout.flush();
    const pid_t child = fork();
    if (child == 0) {
        dup2(STDOUT_FILENO, STDERR_FILENO);
        example();
        std::cout.flush();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFSIGNALED(status)) {
        std::cout << "(the process ended with signal " << WTERMSIG(status) << ")\n";
    }
}

const char kLogFile[] = "/var/log/tezalog";

// The records of the log file `path` that this process wrote: every process on the machine
// that uses the runtime writes to the same file, and the process id tells them apart. Each
// record is its line and the empty line after it.
std::string RecordsOfThisProcess(const char* path) {
    const std::string mine = "pid:" + std::to_string(getpid()) + " ";
    std::ifstream file(path);
    std::string records;
    bool keep = false;
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("pid:", 0) == 0) {
            keep = line.rfind(mine, 0) == 0;
        }
        if (keep) {
            records += line + "\n";
        }
    }
    return records;
}

void Heading(const char* name) {
    std::cout << "== " << name << "\n";
}

// Runs an example after the wrapper's start, with an empty connection cache.
void Run(const char* name, void (*example)()) {
    EmptyTheCache();
    Heading(name);
    example();
}

// --- The examples, in the order of the page ------------------------------------------------

void CleanupTwice() {
    InChild([] {
        // [cleanup-twice]
        std::string error;
        TezaWrapper::init(error);
        TezaWrapper::cleanup();
        TezaWrapper::cleanup();  // one more than init(): the process ends here
        // [end]
    });
}

void LogFile() {
    if (access(kLogFile, F_OK) == 0) {
        std::cout << kLogFile << " exists already; the example leaves it alone\n";
        return;
    }
    // [log-file]
    fclose(fopen("/var/log/tezalog", "a"));  // the log is on while the file exists
    std::string error;
    TezaWrapper::init(error);
    TezaWrapper::cleanup();
    std::cout << RecordsOfThisProcess("/var/log/tezalog");
    remove("/var/log/tezalog");  // and off again
    // [end]
}

void Descriptor() {
    // [descriptor]
    TezaServerConnection node("127.0.0.1", 1, 21, TezaServerConnection::STYLE_LOGIN_PASSWORD,
                              TezaServerConnection::TRANSPORT_HTTP, 8080,
                              TezaServerConnection::SERVER_TYPE_NODE, 60, 15, "admin", "secret", 5);
    std::cout << node.toString() << "\n";
    // [end]
}

void OwnCopy() {
    Server server("ping pass");
    // [own-copy]
    TezaServerConnection node = Node(server);  // admin, secret
    ExamplesInterface api(node);               // takes its own copy of node
    node.setUser("admin", "wrong");            // changes node, not the copy
    Report(api.ping());
    api.getConnection().setUser("admin", "wrong");  // changes the interface's copy
    Report(api.ping());
    // [end]
}

void Numbers() {
    // [numbers]
    std::cout << Answer<examples::Numbers>(
        "<count>2147483648</count>"
        "<int32s><i>2147483648</i><i>abc</i><i>12x</i><i> -7</i></int32s>"
        "<uint32s><i>4294967296</i><i>-1</i></uint32s>"
        "<int64s><i>9223372036854775808</i></int64s><uint64s><i>-1</i></uint64s>");
    // [end]
    std::cout << "\n";
}

void Booleans() {
    // [booleans]
    std::cout << Answer<examples::Flags>(
        "<single-yes>Yes</single-yes><single-y>y</single-y><single-empty/>"
        "<items><i>OFF</i><i>off</i><i>no</i><i>0</i><i></i><i>maybe</i></items>");
    // [end]
    std::cout << "\n";
}

void Texts() {
    // [texts]
    std::cout << Answer<examples::Texts>(
        "<text>a &lt;b&gt; &amp;amp; &#65; &eacute;</text>"
        "<items><i>&lt;</i><i/></items><empty-items/>");
    // [end]
    std::cout << "\n";
}

void Quarantine() {
    Server server("ping pass");
    // [quarantine]
    TezaServerConnection wrong = Node(server, "wrong"), right = Node(server, "secret");
    right.setUseHealthChecker(true);
    Report(ExamplesInterface(wrong).ping());  // quarantines 127.0.0.1 on this port
    Report(ExamplesInterface(right).ping());  // refused without a try, whatever the login
    // [end]
}

void OpenOrCall() {
    Server server("ping truncated");
    const int nobody = ClosedPort();
    // [open-or-call]
    Report(ExamplesInterface(Node(nobody)).ping());  // nothing listens there
    Report(ExamplesInterface(Node(server)).ping());  // the answer is cut short
    // [end]
}

void CacheMatch() {
    Server server("ping pass");
    // [cache-match]
    TezaServerConnection right = Node(server);                     // admin, secret
    TezaServerConnection other = Node(server, SameBucket(right));  // a wrong password
    Report(ExamplesInterface(other).ping());                       // a new connection: refused
    Report(ExamplesInterface(right).ping());  // passes; its handle goes to the cache
    Report(ExamplesInterface(other).ping());  // takes that handle and passes
    // [end]
}

void Traces() {
    Server server("ping pass");
    // [traces]
    ExamplesFamily::setTraceLevel(1);
    ExamplesInterface(Node(server)).ping();
    ExamplesFamily::setTraceLevel(0);
    // [end]
}

void DefaultKey() {
    // [default-key]
    rk_elem_t* account = rk_elem_new("account");
    rk_child_add_string_encrypted(account, "secret", "s3cr3t", nullptr);  // the default key
    char* clear = rk_child_get_string_encrypted(account, "secret", "teza-default-key");
    std::cout << (clear != nullptr ? clear : "(unreadable)") << "\n";
    rk_free(clear);
    rk_elem_free(account);
    // [end]
}

void OwnKey() {
    // [own-key]
    rk_set_default_key("a key of our own");
    rk_elem_t* account = rk_elem_new("account");
    rk_child_add_string_encrypted(account, "secret", "s3cr3t", nullptr);
    char* clear = rk_child_get_string_encrypted(account, "secret", "teza-default-key");
    std::cout << (clear != nullptr ? clear : "(unreadable)") << "\n";
    rk_free(clear);
    rk_elem_free(account);
    // [end]
    rk_set_default_key(nullptr);
}

void TypedefChainEcho() {
    Server server("variant-echo echo");
    // [typedef-chain]
    examples::Variant red, blue;
    red.setSku("red");
    blue.setSku("blue");
    examples::VariantEcho sent;
    sent.setVariants({red, blue});
    examples::EchoReply reply;
    Report(ExamplesInterface(Node(server)).variantEcho(sent, reply));
    std::cout << reply << "\n";
    // [end]
}

}  // namespace

int main() {
    // Before anything starts a thread: the child of this example must not inherit one.
    Heading("cleanup-twice");
    CleanupTwice();
    // Before the program's own init(), which would keep the library from logging its start.
    Heading("log-file");
    LogFile();

    std::string error;
    if (!TezaWrapper::init(error)) {
        std::cerr << "first_call_examples: start-up failed: " << error << "\n";
        return 1;
    }
    Run("descriptor", Descriptor);
    Run("own-copy", OwnCopy);
    Run("numbers", Numbers);
    Run("booleans", Booleans);
    Run("texts", Texts);
    Run("quarantine", Quarantine);
    Run("open-or-call", OpenOrCall);
    Run("cache-match", CacheMatch);
    Run("traces", Traces);
    Run("default-key", DefaultKey);
    Run("own-key", OwnKey);
    Run("typedef-chain", TypedefChainEcho);
    // The first call took a reference of its own; both go back, closing the cached handles.
    TezaServerConnection::cleanup();
    TezaWrapper::cleanup();
    return 0;
}
