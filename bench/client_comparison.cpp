// The client comparison: the same service (bench-call of bench.teza, served by `tezad --bench`)
// called four ways, each from a client process of its own against a server process of its
// own, one call in flight per client thread:
//
//   runtime  the generated interface (BenchInterface::benchCall) through the runtime, whose
//            descriptor's handle stays in the connection cache between calls;
//   librk    bare rk_ calls on one handle: the request built with rk_child_add_*, sent with
//            rk_server_invoke_elem, the answer read with rk_child_get_*;
//   curl     bare libcurl on one easy handle: the request written by hand as XML text with the
//            same headers and credentials, the answer parsed with pugixml;
//   grpc     the gRPC reference (teza_bench_grpc, built only when gRPC is installed).
//
// and the big answer: bench-volumes with 50,000 volumes through the generated interface,
// beside hand-written rk_ code reading the same answer into plain structs, and, when
// TEZA_BENCH_PRELOAD_MALLOC names a malloc library, through the generated interface again
// with that library preloaded.
//
//   teza_bench_clients run [--calls N] [--rounds N] [--volumes N] [--out FILE]
//
// runs every side with one and two client threads, in rounds whose order is shuffled, and
// writes one JSON object per run (one line each) to FILE (default: standard output). The
// other modes are what `run` starts in its child processes:
//
//   teza_bench_clients client SIDE PORT THREADS CALLS
//   teza_bench_clients big runtime|hand PORT VOLUMES REPEAT
//   teza_bench_clients logchecks COUNT
//
// Every call checks every field of its answer that depends on its request; a wrong answer
// ends the run.

#include <curl/curl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>
#include <pugixml.hpp>

#include <algorithm>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "TezaConnectionCache.h"
#include "bench.h"
#include "bench_support.h"
#include "client_common.h"

extern char** environ;

namespace teza_bench {
namespace {

const char kHost[] = "127.0.0.1";
const long kWarmup = 200;

// ---- The runtime: the generated interface --------------------------------------------

bool CheckTyped(const bench::CallResponse& out, const ExpectedAnswer& e) {
    std::string text;
    int32_t number = 0;
    int64_t wide = 0;
    bool flag = false;
    std::vector<std::string> labels;
    const bench::Summary* summary = out.getSummary();
    if (!out.getRequestId(text) || text != e.requestId || !out.getStatus(text) ||
        text != e.status || !out.getCode(number) || number != e.code || !out.getProcessedAt(wide) ||
        wide != e.processedAt || !out.getAccepted(flag) || flag != e.accepted ||
        summary == nullptr || !summary->getName(text) || text != e.summaryName ||
        !summary->getCity(text) || text != e.summaryCity || !summary->getTagCount(number) ||
        number != e.tagCount || !out.getLabels(labels) || labels.size() != 5 ||
        !out.getScore(number) || number != e.score || !out.getMessage(text) || text != e.message) {
        return false;
    }
    for (int k = 0; k < 5; ++k) {
        if (labels[k] != e.labels[k]) {
            return false;
        }
    }
    return true;
}

ClientLoop RuntimeLoop(int port) {
    auto api = std::make_shared<bench::BenchInterface>(
        Descriptor(kHost, TezaServerConnection::TRANSPORT_HTTP, port));
    return [api](int thread, long first, long calls, std::vector<double>* latencies) {
        for (long i = first; i < first + calls; ++i) {
            const double start = NowMicros();
            const CallValues v(thread, i);
            bench::CallRequest in;
            in.setRequestId(v.requestId);
            in.setUserName(v.userName);
            in.setEmail(v.email);
            in.setAge(v.age);
            in.setAccountId(v.accountId);
            in.setActive(v.active);
            bench::Address address;
            address.setStreet(v.street);
            address.setCity(v.city);
            address.setZip(v.zip);
            in.setAddress(address);
            in.setTags(std::vector<std::string>(v.tags, v.tags + 5));
            in.setPriority(v.priority);
            in.setNote(v.note);
            bench::CallResponse out;
            const TezaStatus status = api->benchCall(in, out);
            if (status.status != TezaStatus::Success) {
                fprintf(stderr, "runtime: %s\n", status.reason.c_str());
                return false;
            }
            if (!CheckTyped(out, ExpectedAnswer(v))) {
                fprintf(stderr, "runtime: wrong answer to call %ld\n", i);
                return false;
            }
            latencies->push_back(NowMicros() - start);
        }
        return true;
    };
}

// ---- Bare librk -------------------------------------------------------------------------

rk_elem_t* AddChecked(rk_elem_t* elem) {
    if (elem == nullptr) {
        Fail("librk: cannot build the request");
    }
    return elem;
}

ElemPtr LibrkRequest(const CallValues& v) {
    ElemPtr request(rk_elem_new("bench-call"));
    rk_elem_t* r = request.get();
    AddChecked(rk_child_add_string(r, "request-id", v.requestId.c_str()));
    AddChecked(rk_child_add_string(r, "user-name", v.userName.c_str()));
    AddChecked(rk_child_add_string(r, "email", v.email.c_str()));
    AddChecked(rk_child_add_string(r, "age", std::to_string(v.age).c_str()));
    AddChecked(rk_child_add_string(r, "account-id", std::to_string(v.accountId).c_str()));
    AddChecked(rk_child_add_bool(r, "active", v.active ? 1 : 0));
    rk_elem_t* address = AddChecked(rk_child_add(r, rk_elem_new("address")));
    AddChecked(rk_child_add_string(address, "street", v.street.c_str()));
    AddChecked(rk_child_add_string(address, "city", v.city.c_str()));
    AddChecked(rk_child_add_string(address, "zip", std::to_string(v.zip).c_str()));
    rk_elem_t* tags = AddChecked(rk_child_add(r, rk_elem_new("tags")));
    for (const std::string& tag : v.tags) {
        AddChecked(rk_child_add_string(tags, "string", tag.c_str()));
    }
    AddChecked(rk_child_add_string(r, "priority", std::to_string(v.priority).c_str()));
    AddChecked(rk_child_add_string(r, "note", v.note.c_str()));
    return request;
}

bool TextIs(rk_elem_t* elem, const char* name, const std::string& expected) {
    const char* text = rk_child_get_string(elem, name);
    return text != nullptr && DecodeEntities(text) == expected;
}

bool NumberIs(rk_elem_t* elem, const char* name, long long expected) {
    const char* text = rk_child_get_string(elem, name);
    return text != nullptr && strtoll(text, nullptr, 10) == expected;
}

bool CheckElements(rk_elem_t* result, const ExpectedAnswer& e) {
    rk_elem_t* summary = rk_elem_child(result, "summary");
    rk_elem_t* labels = rk_elem_child(result, "labels");
    if (rk_results_status(result) != 1 || !TextIs(result, "request-id", e.requestId) ||
        !TextIs(result, "status", e.status) || !NumberIs(result, "code", e.code) ||
        !NumberIs(result, "processed-at", e.processedAt) ||
        (rk_child_get_bool(result, "accepted", -1) == 1) != e.accepted || summary == nullptr ||
        !TextIs(summary, "name", e.summaryName) || !TextIs(summary, "city", e.summaryCity) ||
        !NumberIs(summary, "tag-count", e.tagCount) || labels == nullptr ||
        !NumberIs(result, "score", e.score) || !TextIs(result, "message", e.message)) {
        return false;
    }
    rk_iterator_t it = rk_child_iterator(labels);
    int k = 0;
    for (rk_elem_t* label = rk_iterator_next(&it); label != nullptr;
         label = rk_iterator_next(&it), ++k) {
        if (k == 5 || DecodeEntities(rk_elem_get_content(label)) != e.labels[k]) {
            return false;
        }
    }
    return k == 5;
}

ClientLoop LibrkLoop(int port) {
    std::shared_ptr<rk_server_t> server(OpenHandle(kHost, RK_TRANSPORT_HTTP, port).release(),
                                        rk_server_close);
    return [server](int thread, long first, long calls, std::vector<double>* latencies) {
        for (long i = first; i < first + calls; ++i) {
            const double start = NowMicros();
            const CallValues v(thread, i);
            ElemPtr request = LibrkRequest(v);
            ElemPtr result(rk_server_invoke_elem(server.get(), request.get()));
            if (!CheckElements(result.get(), ExpectedAnswer(v))) {
                fprintf(stderr, "librk: wrong answer to call %ld: %s\n", i,
                        rk_results_reason(result.get()) ? rk_results_reason(result.get()) : "");
                return false;
            }
            latencies->push_back(NowMicros() - start);
        }
        return true;
    };
}

// ---- Bare libcurl -------------------------------------------------------------------------

void AppendEscaped(std::string* out, const std::string& text) {
    for (char c : text) {
        switch (c) {
            case '&':
                *out += "&amp;";
                break;
            case '<':
                *out += "&lt;";
                break;
            case '>':
                *out += "&gt;";
                break;
            default:
                out->push_back(c);
        }
    }
}

void AppendField(std::string* out, const char* name, const std::string& text) {
    *out += '<';
    *out += name;
    *out += '>';
    AppendEscaped(out, text);
    *out += "</";
    *out += name;
    *out += '>';
}

// The request as XML text, as librk writes it (without its indentation).
void CurlRequest(const CallValues& v, std::string* out) {
    out->assign("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<bench-call>");
    AppendField(out, "request-id", v.requestId);
    AppendField(out, "user-name", v.userName);
    AppendField(out, "email", v.email);
    AppendField(out, "age", std::to_string(v.age));
    AppendField(out, "account-id", std::to_string(v.accountId));
    AppendField(out, "active", v.active ? "true" : "false");
    *out += "<address>";
    AppendField(out, "street", v.street);
    AppendField(out, "city", v.city);
    AppendField(out, "zip", std::to_string(v.zip));
    *out += "</address><tags>";
    for (const std::string& tag : v.tags) {
        AppendField(out, "string", tag);
    }
    *out += "</tags>";
    AppendField(out, "priority", std::to_string(v.priority));
    AppendField(out, "note", v.note);
    *out += "</bench-call>\n";
}

bool CheckXml(const std::string& answer, const ExpectedAnswer& e) {
    pugi::xml_document doc;
    if (!doc.load_buffer(answer.data(), answer.size())) {
        return false;
    }
    const pugi::xml_node r = doc.document_element();
    const pugi::xml_node summary = r.child("summary");
    if (strcmp(r.attribute("status").value(), "passed") != 0 ||
        e.requestId != r.child_value("request-id") || e.status != r.child_value("status") ||
        r.child("code").text().as_int(-1) != e.code ||
        r.child("processed-at").text().as_llong(-1) != e.processedAt ||
        (strcmp(r.child_value("accepted"), "true") == 0) != e.accepted ||
        e.summaryName != summary.child_value("name") ||
        e.summaryCity != summary.child_value("city") ||
        summary.child("tag-count").text().as_int(-1) != e.tagCount ||
        r.child("score").text().as_int(-1) != e.score || e.message != r.child_value("message")) {
        return false;
    }
    int k = 0;
    for (const pugi::xml_node label : r.child("labels").children()) {
        if (k == 5 || e.labels[k++] != label.child_value()) {
            return false;
        }
    }
    return k == 5;
}

struct CurlClient {
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    std::string request;
    std::string answer;
    ~CurlClient() {
        curl_easy_cleanup(easy);
        curl_slist_free_all(headers);
    }
};

std::shared_ptr<CurlClient> NewCurlClient(int port) {
    auto c = std::make_shared<CurlClient>();
    c->easy = NewLibrkLikeHandle(port, &c->answer, &c->headers);
    return c;
}

ClientLoop CurlLoop(int port) {
    std::shared_ptr<CurlClient> c = NewCurlClient(port);
    return [c](int thread, long first, long calls, std::vector<double>* latencies) {
        for (long i = first; i < first + calls; ++i) {
            const double start = NowMicros();
            const CallValues v(thread, i);
            CurlRequest(v, &c->request);
            curl_easy_setopt(c->easy, CURLOPT_POSTFIELDS, c->request.data());
            curl_easy_setopt(c->easy, CURLOPT_POSTFIELDSIZE_LARGE,
                             static_cast<curl_off_t>(c->request.size()));
            c->answer.clear();
            const CURLcode code = curl_easy_perform(c->easy);
            if (code != CURLE_OK || !CheckXml(c->answer, ExpectedAnswer(v))) {
                fprintf(stderr, "curl: call %ld failed: %s %s\n", i, curl_easy_strerror(code),
                        c->answer.c_str());
                return false;
            }
            latencies->push_back(NowMicros() - start);
        }
        return true;
    };
}

int ClientMain(const std::string& side, int port, int threads, long calls) {
    if (side == "runtime") {
        StartRuntime();
        RunClients(side, threads, calls, kWarmup, [port] { return RuntimeLoop(port); });
    } else if (side == "librk") {
        StartRuntime();  // starts librk as the runtime does
        RunClients(side, threads, calls, kWarmup, [port] { return LibrkLoop(port); });
    } else if (side == "curl") {
        curl_global_init(CURL_GLOBAL_DEFAULT);
        RunClients(side, threads, calls, kWarmup, [port] { return CurlLoop(port); });
    } else {
        Fail("unknown side " + side);
    }
    return 0;
}

// ---- The log file's existence checks ---------------------------------------------------

// What the eight existence checks of the log file that a call through the runtime makes cost
// this process: CPU µs per eight access(2) calls on the log file's path.
int LogChecksMain(long count) {
    const double cpu0 = CpuMicros();
    int found = 0;
    for (long i = 0; i < count * 8; ++i) {
        found += access("/var/log/tezalog", F_OK) == 0 ? 1 : 0;
    }
    printf(
        "{\"side\": \"logchecks\", \"calls\": %ld, \"cpu_us_per_call\": %.3f, "
        "\"found\": %d}\n",
        count, (CpuMicros() - cpu0) / count, found);
    return 0;
}

// ---- The big answer -----------------------------------------------------------------------

struct MountData {
    std::string node;
    std::string path;
    bool readOnly = false;
};

struct VolumeData {
    std::string name;
    std::string uuid;
    uint64_t sizeBytes = 0;
    uint64_t usedBytes = 0;
    bool online = false;
    std::vector<MountData> mounts;
};

const char* ChildText(rk_elem_t* elem, const char* name) {
    const char* text = rk_child_get_string(elem, name);
    return text != nullptr ? text : "";
}

// Hand-written reading of the answer, with the runtime's conversions.
void ReadVolumes(rk_elem_t* result, std::vector<VolumeData>* volumes) {
    rk_elem_t* list = rk_elem_child(result, "volumes");
    volumes->reserve(rk_elem_child_count(list));
    rk_iterator_t it = rk_child_iterator(list);
    for (rk_elem_t* elem = rk_iterator_next(&it); elem != nullptr; elem = rk_iterator_next(&it)) {
        volumes->emplace_back();
        VolumeData& v = volumes->back();
        v.name = DecodeEntities(ChildText(elem, "name"));
        v.uuid = DecodeEntities(ChildText(elem, "uuid"));
        v.sizeBytes = strtoull(ChildText(elem, "size"), nullptr, 10);
        v.usedBytes = strtoull(ChildText(elem, "used"), nullptr, 10);
        v.online = rk_child_get_bool(elem, "online", 0) != 0;
        rk_iterator_t mounts = rk_child_iterator(rk_elem_child(elem, "mounts"));
        for (rk_elem_t* m = rk_iterator_next(&mounts); m != nullptr;
             m = rk_iterator_next(&mounts)) {
            v.mounts.push_back(MountData{DecodeEntities(ChildText(m, "node")),
                                         DecodeEntities(ChildText(m, "path")),
                                         rk_child_get_bool(m, "read-only", 0) != 0});
        }
    }
}

// The values tezad's bench-volumes gives volume i (checked on a sample of the answer).
bool VolumeIs(long i, const std::string& name, uint64_t size, uint64_t used, bool online,
              const std::string& path, bool readOnly) {
    char expected[32];
    snprintf(expected, sizeof expected, "volume-%06ld", i);
    return name == expected && size == (static_cast<uint64_t>(i) + 1) << 30 &&
           used == static_cast<uint64_t>(i) << 20 && online == (i % 2 == 0) &&
           path == std::string("/srv/") + expected && readOnly == (i % 3 == 0);
}

bool CheckHand(const std::vector<VolumeData>& volumes, long count) {
    if (static_cast<long>(volumes.size()) != count) {
        return false;
    }
    for (long i = 0; i < count; i += 997) {
        const VolumeData& v = volumes[i];
        if (v.mounts.size() != 1 || !VolumeIs(i, v.name, v.sizeBytes, v.usedBytes, v.online,
                                              v.mounts[0].path, v.mounts[0].readOnly)) {
            return false;
        }
    }
    return true;
}

bool CheckRuntime(const bench::VolumeList& list, long count) {
    int n = 0;
    const bench::Volume* volumes = nullptr;
    if (!list.getVolumes(n, volumes) || n != count) {
        return false;
    }
    for (long i = 0; i < count; i += 997) {
        const bench::Volume& v = volumes[i];
        std::string name;
        uint64_t size = 0;
        uint64_t used = 0;
        bool online = false;
        std::vector<bench::Mount> mounts;
        std::string path;
        bool readOnly = false;
        if (!v.getName(name) || !v.getSize(size) || !v.getUsed(used) || !v.getOnline(online) ||
            !v.getMounts(mounts) || mounts.size() != 1 || !mounts[0].getPath(path) ||
            !mounts[0].getReadOnly(readOnly) ||
            !VolumeIs(i, name, size, used, online, path, readOnly)) {
            return false;
        }
    }
    return true;
}

// One call of bench-volumes, timed from the request to the answer read and checked; the
// answer is released before the next call.
double BigCall(const std::string& side, int port, long count) {
    const double start = NowMicros();
    if (side == "runtime") {
        static bench::BenchInterface api(
            Descriptor(kHost, TezaServerConnection::TRANSPORT_HTTP, port));
        bench::VolumeQuery query;
        query.setCount(static_cast<int32_t>(count));
        bench::VolumeList list;
        const TezaStatus status = api.benchVolumes(query, list);
        if (status.status != TezaStatus::Success || !CheckRuntime(list, count)) {
            Fail("big answer, runtime: " + status.reason);
        }
    } else {
        static ServerPtr server = OpenHandle(kHost, RK_TRANSPORT_HTTP, port);
        ElemPtr request(rk_elem_new("bench-volumes"));
        rk_child_add_string(request.get(), "count", std::to_string(count).c_str());
        ElemPtr result(rk_server_invoke_elem(server.get(), request.get()));
        std::vector<VolumeData> volumes;
        if (rk_results_status(result.get()) != 1) {
            Fail(std::string("big answer, hand: ") + rk_results_reason(result.get()));
        }
        ReadVolumes(result.get(), &volumes);
        if (!CheckHand(volumes, count)) {
            Fail("big answer, hand: wrong answer");
        }
    }
    return NowMicros() - start;
}

int BigMain(const std::string& side, int port, long count, int repeat) {
    StartRuntime();
    std::vector<double> times;
    const double cpu0 = CpuMicros();
    for (int r = 0; r < repeat; ++r) {
        times.push_back(BigCall(side, port, count));
    }
    const double cpu = CpuMicros() - cpu0;
    std::sort(times.begin(), times.end());
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    printf(
        "{\"side\": \"big-%s\", \"volumes\": %ld, \"calls\": %d, \"ms_per_call\": %.2f, "
        "\"cpu_ms_per_call\": %.2f, \"peak_rss_mb\": %.1f}\n",
        side.c_str(), count, repeat, times[times.size() / 2] / 1e3, cpu / repeat / 1e3,
        usage.ru_maxrss / 1024.0);
    return 0;
}

// ---- The driver -----------------------------------------------------------------------------

// Runs `args` as a child process and returns what it printed on standard output.
// Runs a child to its end and gives its standard output; `preload`, when not empty, is put in
// its environment as LD_PRELOAD.
std::string RunChild(const std::vector<std::string>& args, const std::string& preload = "") {
    int pipeFds[2];
    if (pipe(pipeFds) != 0) {
        Fail("pipe failed");
    }
    std::vector<char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
    posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
    std::vector<std::string> environment;
    for (char** e = environ; *e != nullptr; ++e) {
        if (strncmp(*e, "LD_PRELOAD=", 11) != 0) {
            environment.push_back(*e);
        }
    }
    if (!preload.empty()) {
        environment.push_back("LD_PRELOAD=" + preload);
    }
    std::vector<char*> envp;
    for (const std::string& e : environment) {
        envp.push_back(const_cast<char*>(e.c_str()));
    }
    envp.push_back(nullptr);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    if (spawned != 0) {
        Fail("cannot start " + args[0]);
    }
    std::string output;
    char buffer[4096];
    ssize_t n;
    while ((n = read(pipeFds[0], buffer, sizeof buffer)) > 0) {
        output.append(buffer, static_cast<size_t>(n));
    }
    close(pipeFds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        Fail(args[0] + " " + args[1] + " " + args[2] + " failed");
    }
    return output;
}

// The gRPC reference's server: started with "server", prints its port on its first line.
class GrpcServer {
  public:
    GrpcServer() {
        int pipeFds[2];
        if (pipe(pipeFds) != 0) {
            Fail("pipe failed");
        }
        char* argv[] = {const_cast<char*>(TEZA_BENCH_GRPC), const_cast<char*>("server"), nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 1);
        posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
        const int spawned = posix_spawn(&_pid, argv[0], &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        close(pipeFds[1]);
        if (spawned != 0) {
            Fail("cannot start the gRPC server");
        }
        char line[64] = {0};
        ssize_t n = read(pipeFds[0], line, sizeof line - 1);
        close(pipeFds[0]);
        _port = n > 0 ? atoi(line) : 0;
        if (_port == 0) {
            Fail("the gRPC server printed no port");
        }
    }
    ~GrpcServer() {
        kill(_pid, SIGTERM);
        waitpid(_pid, nullptr, 0);
    }
    int port() const { return _port; }

  private:
    pid_t _pid = -1;
    int _port = 0;
};

int RunMain(int argc, char** argv, const std::string& self) {
    long calls = 20000;
    int rounds = 3;
    long volumes = 50000;
    std::string out;
    for (int i = 2; i + 1 < argc; i += 2) {
        const std::string option = argv[i];
        if (option == "--calls") {
            calls = atol(argv[i + 1]);
        } else if (option == "--rounds") {
            rounds = atoi(argv[i + 1]);
        } else if (option == "--volumes") {
            volumes = atol(argv[i + 1]);
        } else if (option == "--out") {
            out = argv[i + 1];
        } else {
            Fail("unknown option " + option);
        }
    }
    // A malloc to preload for one more run of the big answer (scripts/bench names
    // libtcmalloc_minimal when it is installed); none when unset or unreadable.
    const char* preloadEnv = getenv("TEZA_BENCH_PRELOAD_MALLOC");
    const std::string mallocToPreload =
        preloadEnv != nullptr && access(preloadEnv, R_OK) == 0 ? preloadEnv : "";
    std::vector<std::string> sides = {"runtime", "librk", "curl"};
    if (strlen(TEZA_BENCH_GRPC) > 0) {
        sides.push_back("grpc");
    } else {
        fprintf(stderr,
                "teza_bench_clients: gRPC was not found at build time (libgrpc++-dev, "
                "protobuf-compiler-grpc): the gRPC reference is skipped\n");
    }
    const std::vector<std::string> bench = {"--bench"};
    std::vector<std::unique_ptr<Tezad>> tezads;
    std::unique_ptr<GrpcServer> grpc;
    std::vector<int> ports;
    for (const std::string& side : sides) {
        if (side == "grpc") {
            grpc = std::make_unique<GrpcServer>();
            ports.push_back(grpc->port());
        } else {
            tezads.push_back(std::make_unique<Tezad>(false, bench));
            ports.push_back(tezads.back()->port());
        }
    }
    // The machine's load at the start and at the end of the run, for the report.
    auto load = [] {
        double averages[3] = {0, 0, 0};
        getloadavg(averages, 3);
        char text[64];
        snprintf(text, sizeof text, "%.2f, %.2f, %.2f", averages[0], averages[1], averages[2]);
        return std::string(text);
    };
    const time_t started = time(nullptr);
    const std::string loadAtStart = load();
    std::string results;
    std::mt19937 random(std::random_device{}());
    for (int round = 0; round < rounds; ++round) {
        std::vector<std::pair<size_t, int>> runs;
        for (size_t s = 0; s < sides.size(); ++s) {
            runs.emplace_back(s, 1);
            runs.emplace_back(s, 2);
        }
        std::shuffle(runs.begin(), runs.end(), random);
        for (const auto& [s, threads] : runs) {
            const std::string program = sides[s] == "grpc" ? TEZA_BENCH_GRPC : self;
            const std::string line =
                RunChild({program, "client", sides[s], std::to_string(ports[s]),
                          std::to_string(threads), std::to_string(calls / threads)});
            fprintf(stderr, "round %d: %s", round + 1, line.c_str());
            results += line;
        }
        results += RunChild({self, "logchecks", "200000"});
        std::vector<std::string> big = {
            self, "big", "runtime", std::to_string(ports[0]), std::to_string(volumes), "3"};
        std::vector<std::string> bigRuns = {RunChild(big)};
        if (!mallocToPreload.empty()) {
            // The same through the generated interface with a thread-caching malloc: the
            // records' storage is one heap block a value, fixed, so the allocator is what a
            // user can change. Labelled apart.
            std::string line = RunChild(big, mallocToPreload);
            const std::string label = "\"big-runtime\"";
            const size_t at = line.find(label);
            if (at != std::string::npos) {
                line.replace(at, label.size(),
                             "\"big-runtime-preloaded\", \"preloaded\": \"" +
                                 mallocToPreload.substr(mallocToPreload.rfind('/') + 1) + "\"");
            }
            bigRuns.push_back(line);
        }
        big[2] = "hand";  // the round ends with the hand-written reader
        bigRuns.push_back(RunChild(big));
        for (const std::string& line : bigRuns) {
            fprintf(stderr, "round %d: %s", round + 1, line.c_str());
            results += line;
        }
    }
    char date[32];
    strftime(date, sizeof date, "%Y-%m-%dT%H:%M:%SZ", gmtime(&started));
    results += std::string("{\"side\": \"machine\", \"date\": \"") + date +
               "\", \"load_start\": \"" + loadAtStart + "\", \"load_end\": \"" + load() + "\"}\n";
    if (out.empty()) {
        fputs(results.c_str(), stdout);
    } else {
        std::ofstream(out) << results;
    }
    return 0;
}

}  // namespace
}  // namespace teza_bench

int main(int argc, char** argv) {
    using namespace teza_bench;
    const std::string mode = argc > 1 ? argv[1] : "";
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    self[n > 0 ? n : 0] = '\0';
    if (mode == "run") {
        return RunMain(argc, argv, self);
    }
    if (mode == "client" && argc == 6) {
        return ClientMain(argv[2], atoi(argv[3]), atoi(argv[4]), atol(argv[5]));
    }
    if (mode == "big" && argc == 6) {
        return BigMain(argv[2], atoi(argv[3]), atol(argv[4]), atoi(argv[5]));
    }
    if (mode == "logchecks" && argc == 3) {
        return LogChecksMain(atol(argv[2]));
    }
    fprintf(stderr,
            "usage: teza_bench_clients run [--calls N] [--rounds N] [--volumes N] [--out FILE]\n"
            "       teza_bench_clients client runtime|librk|curl PORT THREADS CALLS\n"
            "       teza_bench_clients big runtime|hand PORT VOLUMES REPEAT\n"
            "       teza_bench_clients logchecks COUNT\n");
    return 2;
}
