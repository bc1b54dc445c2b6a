// The demo: code generated from demo.teza calling the demo service of tezad. By default the
// service runs inside this process behind librk's in-process transport, so nothing needs to be
// set up; --host and --port send the same calls to a running tezad over HTTP, --tls over HTTPS.

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "TezaConnectionCache.h"
#include "TezaFieldType.h"
#include "TezaServerConnection.h"
#include "TezaStatus.h"
#include "TezaWrapper.h"
#include "credentials.h"
#include "demo.h"
#include "demo_service.h"
#include "inprocess_server.h"
#include "rk.h"
#include "service_core.h"

namespace {

const char kInProcessName[] = "demo-node";
const int kMajor = 1;
const int kMinor = 21;

const char kUsageHead[] =
    "usage: teza-demo [--host HOST --port PORT [--tls [--ca FILE]]] [credentials]\n"
    "Without --host the demo service runs inside this process. With --host and --port the\n"
    "calls go to a tezad over HTTP, with --tls over HTTPS (--ca: the PEM file of the\n"
    "certificates the server's must chain to). The user is admin, password secret, unless\n"
    "credentials are given.\n";
const std::string kUsage = std::string(kUsageHead) + teza_tools::kCredentialUsage;

struct Options {
    std::string host;
    int port = 0;
    bool tls = false;
    std::string caFile;
    teza_tools::CredentialOptions credentialOptions;
    teza_tools::Credentials credentials;
};

bool ParseOptions(int argc, char** argv, Options* options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--help" || arg == "-h") {
            fputs(kUsage.c_str(), stdout);
            exit(0);
        } else if (teza_tools::ParseCredentialOption(argc, argv, &i, &options->credentialOptions)) {
            continue;
        } else if (arg == "--tls") {
            options->tls = true;
        } else if (arg == "--host" && hasValue) {
            options->host = argv[++i];
        } else if (arg == "--port" && hasValue) {
            char* end = nullptr;
            long port = strtol(argv[++i], &end, 10);
            if (*end != '\0' || port <= 0 || port > 65535) {
                fprintf(stderr, "teza-demo: invalid port '%s'\n", argv[i]);
                return false;
            }
            options->port = static_cast<int>(port);
        } else if (arg == "--ca" && hasValue) {
            options->caFile = argv[++i];
        } else {
            fprintf(stderr, "teza-demo: unknown or incomplete option '%s'\n%s", arg.c_str(),
                    kUsage.c_str());
            return false;
        }
    }
    if (!options->host.empty() && options->port == 0) {
        fprintf(stderr, "teza-demo: --host needs --port\n");
        return false;
    }
    if (options->host.empty() && (options->tls || !options->caFile.empty())) {
        fprintf(stderr, "teza-demo: --tls and --ca need --host and --port\n");
        return false;
    }
    std::string error;
    if (!teza_tools::ResolveCredentials(options->credentialOptions, "admin", "secret",
                                        &options->credentials, &error)) {
        fprintf(stderr, "teza-demo: %s\n", error.c_str());
        return false;
    }
    if (options->credentials.style == RK_STYLE_CERTIFICATE && !options->tls) {
        fprintf(stderr, "teza-demo: the certificate style needs --host, --port and --tls\n");
        return false;
    }
    return true;
}

// In the token style the descriptor's password is the token.
TezaServerConnection MakeDescriptor(const std::string& host,
                                    TezaServerConnection::Transport transport, int port,
                                    const Options& options) {
    const teza_tools::Credentials& c = options.credentials;
    return TezaServerConnection(
        host, kMajor, kMinor, static_cast<TezaServerConnection::Style>(c.style), transport, port,
        TezaServerConnection::SERVER_TYPE_NODE, 60, 15, c.login, c.password, 5);
}

// invoke decodes the reason of a failed call; the reason of a failed connection is the client
// library's text as it travels, entity references included, and is decoded here for show.
std::string ShownReason(const TezaStatus& status) {
    return status.status == TezaStatus::ConnectionFailed
               ? TezaFieldType::getDecodedString(status.reason)
               : status.reason;
}

void Heading(const char* text) {
    printf("\n== %s\n", text);
}

// Prints a call's outcome; returns whether it succeeded.
bool Report(const char* what, const TezaStatus& status) {
    if (status.status == TezaStatus::Success) {
        printf("%s: ok\n", what);
        return true;
    }
    printf("%s: failed (status %d, error %d): %s\n", what, static_cast<int>(status.status),
           status.errnum, ShownReason(status).c_str());
    return false;
}

std::string Join(const std::vector<std::string>& items) {
    std::string text;
    for (const std::string& item : items) {
        text += (text.empty() ? "" : ", ") + item;
    }
    return text;
}

void PrintAccount(const demo::AccountInfo& account) {
    int64_t id = 0;
    std::string name, fullName, secret;
    int64_t quota = 0;
    bool enabled = false;
    std::vector<std::string> tags;
    account.getAccountId(id);
    account.getName(name);
    account.getFullName(fullName);
    account.getQuota(quota);
    account.getEnabled(enabled);
    account.getTags(tags);
    printf("  account %lld: %s (%s), quota %lld, %s\n", static_cast<long long>(id), name.c_str(),
           fullName.c_str(), static_cast<long long>(quota), enabled ? "enabled" : "disabled");
    if (const demo::Address* address = account.getAddress()) {
        std::string street, city;
        address->getStreet(street);
        address->getCity(city);
        printf("  address: %s, %s\n", street.c_str(), city.c_str());
    }
    printf("  tags: %s\n", Join(tags).c_str());
    if (account.getSecret(secret)) {
        printf("  secret (decrypted by the client): %s\n", secret.c_str());
    }
}

void PrintSummary() {
    Heading("Calls per API (successes / failures)");
    for (int api = 0; api < demo::AccountFamily::NUM_APIS; ++api) {
        TezaCounter& counter = demo::AccountFamily::getTracker(api)->getCounter();
        printf("  %-24s %3llu / %llu\n", demo::AccountFamily::getApiName(api).c_str(),
               static_cast<unsigned long long>(counter.getSuccesses()),
               static_cast<unsigned long long>(counter.getFailures()));
    }
    for (int api = 0; api < demo::JobFamily::NUM_APIS; ++api) {
        TezaCounter& counter = demo::JobFamily::getTracker(api)->getCounter();
        printf("  %-24s %3llu / %llu\n", demo::JobFamily::getApiName(api).c_str(),
               static_cast<unsigned long long>(counter.getSuccesses()),
               static_cast<unsigned long long>(counter.getFailures()));
    }
}

// A loopback port that refuses connections: bound but never listened on, and kept bound
// while the demo runs so that no one else takes it. Returns the socket, or -1.
// The down server has a loopback address of its own. The connection cache matches a handle
// by host and version alone within a hash bucket, so with the live server's address a closed
// port could be handed the live server's cached handle.
const uint32_t kDownAddress = 0x7f000002;  // 127.0.0.2
const char kDownHost[] = "127.0.0.2";

int ClosedLoopbackPort(int* port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        return -1;
    }
    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(kDownAddress);
    socklen_t len = sizeof addr;
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) != 0 ||
        getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &len) != 0) {
        close(fd);
        return -1;
    }
    *port = ntohs(addr.sin_port);
    return fd;
}

int RunCalls(const TezaServerConnection& descriptor) {
    int unexpected = 0;
    demo::AccountInterface accounts(descriptor);
    demo::JobInterface jobs(descriptor);

    Heading("Create an account (nested record, array, encrypted secret), traced at level 1");
    demo::AccountFamily::getTracker(demo::AccountFamily::API_ACCOUNT_CREATE)->setTraceLevel(1);
    demo::AccountFamily::getTracker(demo::AccountFamily::API_ACCOUNT_GET)->setTraceLevel(1);
    demo::AccountCreateRequest create;
    create.setName("ada");
    create.setFullName("Ada Lovelace");
    create.setQuota(5000);
    create.setSecret("analytical engine");
    demo::Address address;
    address.setStreet("12 St James's Square");
    address.setCity("London");
    create.setAddress(address);
    create.setTags({"math", "poetry", "engines"});
    demo::AccountCreateReply created;
    if (Report("account-create ada", accounts.accountCreate(create, created))) {
        int64_t id = 0;
        created.getAccountId(id);
        printf("  new account id: %lld\n", static_cast<long long>(id));
    } else {
        ++unexpected;
    }

    demo::AccountName name;
    name.setName("ada");
    demo::AccountGetReply got;
    if (Report("account-get ada", accounts.accountGet(name, got)) && got.getAccountInfo()) {
        PrintAccount(*got.getAccountInfo());
    } else {
        ++unexpected;
    }
    demo::AccountFamily::setTraceLevel(0);

    Heading("Verify the secret: it travels encrypted both ways");
    demo::AccountVerifySecretRequest verify;
    verify.setName("ada");
    verify.setSecret("analytical engine");
    demo::AccountVerifySecretReply verified;
    if (Report("account-verify-secret ada", accounts.accountVerifySecret(verify, verified))) {
        bool matches = false;
        verified.getMatches(matches);
        printf("  matches: %s\n", matches ? "yes" : "no");
    } else {
        ++unexpected;
    }

    Heading("A second account, jobs for it, and lists (API without input)");
    demo::AccountCreateRequest second;
    second.setName("alan");
    second.setFullName("Alan Turing");
    unexpected += !Report("account-create alan", accounts.accountCreate(second, created));

    demo::JobSubmitRequest submit;
    submit.setAccount("alan");
    submit.setCommand("bombe");
    submit.setArguments({"--rotors", "3", "--menu", "crib.txt"});
    submit.setPriority(5);
    demo::JobSubmitReply submitted;
    int64_t jobId = 0;
    if (Report("job-submit bombe", jobs.jobSubmit(submit, submitted))) {
        submitted.getJobId(jobId);
        printf("  job id: %lld\n", static_cast<long long>(jobId));
    } else {
        ++unexpected;
    }

    demo::JobId job;
    job.setJobId(jobId);
    demo::JobGetReply jobGot;
    if (Report("job-get", jobs.jobGet(job, jobGot)) && jobGot.getJobInfo()) {
        std::string state;
        int32_t priority = 0;
        jobGot.getJobInfo()->getState(state);
        jobGot.getJobInfo()->getPriority(priority);
        printf("  state %s, priority %d\n", state.c_str(), priority);
    } else {
        ++unexpected;
    }

    demo::AccountListReply list;
    if (Report("account-list", accounts.accountList(list))) {
        int count = 0;
        const demo::AccountInfo* infos = nullptr;
        if (list.getAccounts(count, infos)) {
            for (int i = 0; i < count; ++i) {
                std::string accountName;
                bool hasSecret = false;
                infos[i].getName(accountName);
                infos[i].getHasSecret(hasSecret);
                printf("  %s%s\n", accountName.c_str(), hasSecret ? " (has a secret)" : "");
            }
        }
    } else {
        ++unexpected;
    }

    demo::JobListRequest jobFilter;
    jobFilter.setAccount("alan");
    demo::JobListReply jobList;
    if (Report("job-list alan", jobs.jobList(jobFilter, jobList))) {
        std::vector<demo::JobInfo> infos;
        jobList.getJobs(infos);
        for (const demo::JobInfo& info : infos) {
            int64_t id = 0;
            std::string command, state;
            std::vector<std::string> arguments;
            info.getJobId(id);
            info.getCommand(command);
            info.getState(state);
            info.getArguments(arguments);
            printf("  job %lld: %s [%s] %s\n", static_cast<long long>(id), command.c_str(),
                   Join(arguments).c_str(), state.c_str());
        }
    } else {
        ++unexpected;
    }

    Heading("Failing calls, with the server's reasons");
    demo::AccountName alan;
    alan.setName("alan");
    // The account has a queued job: the server refuses, and says why.
    if (Report("account-delete alan", accounts.accountDelete(alan))) {
        ++unexpected;
    }
    demo::AccountName nobody;
    nobody.setName("nobody");
    if (Report("account-get nobody", accounts.accountGet(nobody, got))) {
        ++unexpected;
    }
    unexpected += !Report("job-cancel", jobs.jobCancel(job));
    unexpected += !Report("account-delete alan", accounts.accountDelete(alan));
    return unexpected;
}

// A server that is down: the first call fails to connect and puts the server in quarantine;
// with health checking on, the next call is refused at once without trying.
int ShowQuarantine(const Options& options) {
    Heading("A server that is down: quarantine");
    int port = 0;
    const int fd = ClosedLoopbackPort(&port);
    if (fd < 0) {
        printf("no loopback port for this part: %s\n", strerror(errno));
        return 1;
    }
    // The login style whatever the options said: the point is the server that is down.
    Options loginStyle = options;
    loginStyle.credentials.style = RK_STYLE_LOGIN_PASSWORD;
    TezaServerConnection down =
        MakeDescriptor(kDownHost, TezaServerConnection::TRANSPORT_HTTP, port, loginStyle);
    down.setUseHealthChecker(true);
    printf("server: %s:%d (nothing listens there)\n", kDownHost, port);
    demo::AccountInterface accounts(down);
    demo::AccountListReply list;
    int unexpected = 0;
    const TezaStatus first = accounts.accountList(list);
    Report("account-list, first call", first);
    unexpected += first.status != TezaStatus::ConnectionFailed;
    const TezaStatus second = accounts.accountList(list);
    Report("account-list, second call", second);
    unexpected += second.status != TezaStatus::ConnectionFailed || second.errnum != 14007;
    printf("quarantined: %s\n", down.isQuarantined() ? "yes" : "no");
    close(fd);
    return unexpected;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseOptions(argc, argv, &options)) {
        return 2;
    }

    // The in-process server: tezad's service core with its demo APIs, registered under a name
    // that descriptors of the in-process transport use as their host.
    std::unique_ptr<tezad::ServiceCore> core;
    tezad::DemoService service;
    std::unique_ptr<tezad::InProcessServer> inProcess;
    if (options.host.empty()) {
        tezad::CoreOptions coreOptions;
        coreOptions.major = kMajor;
        coreOptions.minor = 30;
        const teza_tools::Credentials& c = options.credentials;
        if (c.style == RK_STYLE_TOKEN) {
            coreOptions.tokens.insert(c.password);
        } else if (c.style == RK_STYLE_LOGIN_PASSWORD) {
            coreOptions.users[c.login] = c.password;
        }
        core.reset(new tezad::ServiceCore(coreOptions));
        service.Install(core.get());
        inProcess.reset(new tezad::InProcessServer(kInProcessName, core.get()));
        if (!inProcess->registered()) {
            fprintf(stderr, "teza-demo: cannot register the in-process server\n");
            return 1;
        }
    }

    std::string error;
    if (!TezaWrapper::init(error)) {
        fprintf(stderr, "teza-demo: the library did not start: %s\n", error.c_str());
        TezaWrapper::cleanup();
        return 1;
    }

    int unexpected = 0;
    if (options.host.empty()) {
        printf("Server: the demo service in this process (%s)\n", kInProcessName);
        unexpected += RunCalls(
            MakeDescriptor(kInProcessName, TezaServerConnection::TRANSPORT_IN_PROCESS, 0, options));
    } else {
        printf("Server: %s://%s:%d\n", options.tls ? "https" : "http", options.host.c_str(),
               options.port);
        const TezaServerConnection::Transport transport =
            options.tls ? TezaServerConnection::TRANSPORT_HTTPS
                        : TezaServerConnection::TRANSPORT_HTTP;
        // The runtime opens its handles itself: the CA file and the client certificate reach
        // them as librk's defaults.
        if (options.tls && !options.caFile.empty()) {
            rk_set_default_ca_file(options.caFile.c_str());
        }
        const teza_tools::Credentials& c = options.credentials;
        if (!c.certFile.empty()) {
            rk_set_default_client_cert(c.certFile.c_str(),
                                       c.keyFile.empty() ? nullptr : c.keyFile.c_str(),
                                       c.hasKeyPassphrase ? c.keyPassphrase.c_str() : nullptr);
        }
        unexpected += RunCalls(MakeDescriptor(options.host, transport, options.port, options));
    }
    unexpected += ShowQuarantine(options);
    PrintSummary();

    TezaWrapper::cleanup();
    if (unexpected != 0) {
        printf("\n%d step(s) did not go as expected\n", unexpected);
        return 1;
    }
    printf("\nThe demo ran as expected.\n");
    return 0;
}
