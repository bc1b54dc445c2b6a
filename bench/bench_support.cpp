#include "bench_support.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "TezaWrapper.h"

extern char** environ;

namespace teza_bench {

const char kLogin[] = "admin";
const char kPassword[] = "secret";

void Die(const std::string& message) {
    fprintf(stderr, "benchmark set-up failed: %s\n", message.c_str());
    exit(1);
}

namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

int Run(const std::string& command) {
    int status = system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TempDir::TempDir() {
    char pattern[] = "/tmp/teza-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        Die("mkdtemp failed");
    }
    _path = pattern;
}

TempDir::~TempDir() {
    Run("rm -rf '" + _path + "'");
}

void MakeCertificate(const TempDir& dir) {
    const std::string command =
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 "
        "-subj '/CN=tezad benchmark' -addext 'subjectAltName=IP:127.0.0.1' -keyout '" +
        dir.File("server.key") + "' -out '" + dir.File("server.pem") + "' >/dev/null 2>&1";
    if (Run(command) != 0) {
        Die("cannot make a certificate: " + command);
    }
}

Tezad::Tezad(bool tls, const std::vector<std::string>& extraArgs) : _tls(tls) {
    std::vector<std::string> args = {TEZAD_PATH, "--user", std::string(kLogin) + ":" + kPassword,
                                     "--api-version",
                                     std::to_string(kMajor) + "." + std::to_string(kMinor)};
    args.insert(args.end(), extraArgs.begin(), extraArgs.end());
    if (tls) {
        MakeCertificate(_dir);
        args.insert(args.end(),
                    {"--tls-cert", _dir.File("server.pem"), "--tls-key", _dir.File("server.key")});
    }
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(&arg[0]);
    }
    argv.push_back(nullptr);
    const std::string out = _dir.File("tezad.out");
    const std::string err = _dir.File("tezad.err");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int spawned = posix_spawn(&_pid, TEZAD_PATH, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) {
        Die(std::string("cannot start ") + TEZAD_PATH);
    }
    const std::string prefix = "tezad: listening on ";
    for (int i = 0; i < 1000 && _port == 0; ++i) {
        const std::string text = ReadFile(out);
        const size_t start = text.find(prefix);
        const size_t end = text.find('\n', start);
        if (start != std::string::npos && end != std::string::npos) {
            const std::string url = text.substr(start + prefix.size(), end - start - prefix.size());
            _port = atoi(url.c_str() + url.rfind(':') + 1);
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    if (_port == 0) {
        Die("tezad printed no port: " + ReadFile(err));
    }
}

Tezad::~Tezad() {
    if (_pid > 0) {
        kill(_pid, SIGTERM);
        waitpid(_pid, nullptr, 0);
    }
}

Tezad& Tezad::Http() {
    static Tezad* server = new Tezad(false);  // stopped by the atexit handler below
    static std::once_flag registered;
    std::call_once(registered, [] { atexit([] { delete server; }); });
    return *server;
}

Tezad& Tezad::Https() {
    static Tezad* server = new Tezad(true);
    static std::once_flag registered;
    std::call_once(registered, [] { atexit([] { delete server; }); });
    return *server;
}

ServerPtr OpenHandle(const std::string& host, int transport, int port, const std::string& caFile) {
    ServerPtr server(rk_server_open(host.c_str(), kMajor, kMinor));
    rk_server_set_style(server.get(), RK_STYLE_LOGIN_PASSWORD);
    rk_server_set_server_type(server.get(), RK_SERVER_TYPE_NODE);
    rk_server_set_transport_type(server.get(), transport, nullptr);
    rk_server_set_port(server.get(), port);
    rk_server_set_admin_user(server.get(), kLogin, kPassword);
    rk_server_set_timeout(server.get(), 15);
    if (!caFile.empty()) {
        rk_server_set_ca_file(server.get(), caFile.c_str());
    }
    return server;
}

TezaServerConnection Descriptor(const std::string& host, TezaServerConnection::Transport transport,
                                int port) {
    return TezaServerConnection(host, kMajor, kMinor, TezaServerConnection::STYLE_LOGIN_PASSWORD,
                                transport, port, TezaServerConnection::SERVER_TYPE_NODE, 60, 15,
                                kLogin, kPassword, 5);
}

bool Probe(rk_server_t* server) {
    ElemPtr result(rk_server_invoke(server, "system-get-corvi-version", nullptr));
    if (rk_results_status(result.get()) != 1) {
        fprintf(stderr, "probe failed: %s\n", rk_results_reason(result.get()));
        return false;
    }
    return true;
}

void StartRuntime() {
    static std::once_flag started;
    std::call_once(started, [] {
        std::string error;
        if (!TezaWrapper::init(error)) {
            Die("TezaWrapper::init: " + error);
        }
        atexit([] { TezaWrapper::cleanup(); });
    });
}

rk_elem_t* EchoRequest(void*, const rk_inprocess_call_t*, rk_elem_t* request) {
    rk_elem_t* result = rk_results_new_passed();
    rk_iterator_t it = rk_child_iterator(request);
    for (rk_elem_t* child = rk_iterator_next(&it); child != nullptr;
         child = rk_iterator_next(&it)) {
        rk_child_add(result, rk_elem_copy(child));
    }
    return result;
}

// ---- Records ---------------------------------------------------------------------------------

Record20Data MakeRecord20Data() {
    Record20Data d;
    d.name = "Bench <Mark> & co";
    d.secret = "s3cr3t value";
    d.small = 42;
    d.negative = -123456;
    d.count = 4000000000u;
    d.limit = 17;
    d.offset = -9000000000000000000LL;
    d.stamp = 1700000000123LL;
    d.size = 18000000000000000000ULL;
    d.id = 987654321;
    d.enabled = true;
    d.origin = {1, -2, "origin"};
    d.point = {30, 40, "point \"p\""};
    d.corners = {{0, 0, "a"}, {10, 0, "b"}, {10, 10, "c"}, {0, 10, "d"}};
    d.texts = {"alpha", "beta", "gamma & delta", "epsilon"};
    d.smalls = {-1, 0, 1, 2147483647};
    d.counts = {0, 1, 4294967295u};
    d.offsets = {-1, 5000000000LL};
    d.sizes = {0, 18446744073709551615ULL, 7};
    d.flags = {true, false, true};
    return d;
}

namespace {

bench::Point ToPoint(const PointData& p) {
    bench::Point point;
    point.setX(p.x);
    point.setY(p.y);
    point.setLabel(p.label);
    return point;
}

}  // namespace

bench::Record20 ToRecord(const Record20Data& d) {
    bench::Record20 r;
    r.setName(d.name);
    r.setSecret(d.secret);
    r.setSmall(d.small);
    r.setNegative(d.negative);
    r.setCount(d.count);
    r.setLimit(d.limit);
    r.setOffset(d.offset);
    r.setStamp(d.stamp);
    r.setSize(d.size);
    r.setId(d.id);
    r.setEnabled(d.enabled);
    r.setOrigin(ToPoint(d.origin));
    r.setPoint(ToPoint(d.point));
    std::vector<bench::Point> corners;
    for (const PointData& p : d.corners) {
        corners.push_back(ToPoint(p));
    }
    r.setCorners(corners);
    r.setTexts(d.texts);
    r.setSmalls(d.smalls);
    r.setCounts(d.counts);
    r.setOffsets(d.offsets);
    r.setSizes(d.sizes);
    r.setFlags(std::vector<bool>(d.flags.begin(), d.flags.end()));
    return r;
}

std::vector<ItemData> MakeItems(int count) {
    std::vector<ItemData> items(count);
    for (int i = 0; i < count; ++i) {
        items[i].id = 1000000000ULL + i;
        items[i].name = "item-" + std::to_string(i);
        items[i].quantity = i % 1000 - 500;
        items[i].active = i % 3 != 0;
    }
    return items;
}

bench::Batch ToBatch(const std::vector<ItemData>& items) {
    std::vector<bench::Item> records(items.size());
    for (size_t i = 0; i < items.size(); ++i) {
        records[i].setId(items[i].id);
        records[i].setName(items[i].name);
        records[i].setQuantity(items[i].quantity);
        records[i].setActive(items[i].active);
    }
    bench::Batch batch;
    batch.setItems(records);
    return batch;
}

// ---- Hand-written writers --------------------------------------------------------------------

namespace {

// Numbers are written with std::to_chars, the cheapest exact base-10 formatting the standard
// library has, so that the reference is what a careful hand would write.
template <typename Integer>
void AddNumber(rk_elem_t* elem, const char* name, Integer value) {
    char text[32];
    *std::to_chars(text, text + sizeof text - 1, value).ptr = '\0';
    rk_child_add_string(elem, name, text);
}

void AddInt(rk_elem_t* elem, const char* name, long long value) {
    AddNumber(elem, name, value);
}

void AddUnsigned(rk_elem_t* elem, const char* name, unsigned long long value) {
    AddNumber(elem, name, value);
}

void WritePointFields(rk_elem_t* elem, const PointData& p) {
    AddInt(elem, "x", p.x);
    AddInt(elem, "y", p.y);
    rk_child_add_string(elem, "label", p.label.c_str());
}

rk_elem_t* AddElem(rk_elem_t* parent, const char* name) {
    return rk_child_add(parent, rk_elem_new(name));
}

}  // namespace

void WriteRecord20(rk_elem_t* e, const Record20Data& d) {
    rk_child_add_string(e, "name", d.name.c_str());
    rk_child_add_string_encrypted(e, "secret", d.secret.c_str(), nullptr);
    AddInt(e, "small", d.small);
    AddInt(e, "negative", d.negative);
    AddUnsigned(e, "count", d.count);
    AddUnsigned(e, "limit", d.limit);
    AddInt(e, "offset", d.offset);
    AddInt(e, "stamp", d.stamp);
    AddUnsigned(e, "size", d.size);
    AddUnsigned(e, "id", d.id);
    rk_child_add_bool(e, "enabled", d.enabled);
    // A nested record goes under its field's element unless field and type share the name.
    WritePointFields(AddElem(AddElem(e, "origin"), "point"), d.origin);
    WritePointFields(AddElem(e, "point"), d.point);
    rk_elem_t* corners = AddElem(e, "corners");
    for (const PointData& p : d.corners) {
        WritePointFields(AddElem(corners, "point"), p);
    }
    // Array items are named after their type: "string", "integer", "boolean".
    rk_elem_t* texts = AddElem(e, "texts");
    for (const std::string& t : d.texts) {
        rk_child_add_string(texts, "string", t.c_str());
    }
    rk_elem_t* smalls = AddElem(e, "smalls");
    for (int32_t v : d.smalls) {
        AddInt(smalls, "integer", v);
    }
    rk_elem_t* counts = AddElem(e, "counts");
    for (uint32_t v : d.counts) {
        AddUnsigned(counts, "integer", v);
    }
    rk_elem_t* offsets = AddElem(e, "offsets");
    for (int64_t v : d.offsets) {
        AddInt(offsets, "integer", v);
    }
    rk_elem_t* sizes = AddElem(e, "sizes");
    for (uint64_t v : d.sizes) {
        AddUnsigned(sizes, "integer", v);
    }
    rk_elem_t* flags = AddElem(e, "flags");
    for (bool v : d.flags) {
        rk_child_add_bool(flags, "boolean", v);
    }
}

void WriteBatch(rk_elem_t* e, const std::vector<ItemData>& items) {
    rk_elem_t* wrapper = AddElem(e, "items");
    for (const ItemData& item : items) {
        rk_elem_t* elem = AddElem(wrapper, "item");
        AddUnsigned(elem, "id", item.id);
        rk_child_add_string(elem, "name", item.name.c_str());
        AddInt(elem, "quantity", item.quantity);
        rk_child_add_bool(elem, "active", item.active);
    }
}

// ---- Hand-written readers --------------------------------------------------------------------

std::string DecodeEntities(const char* text) {
    std::string out;
    if (strchr(text, '&') == nullptr) {
        out = text;
        return out;
    }
    static const struct {
        const char* entity;
        size_t length;
        char replacement;
    } kEntities[] = {{"&lt;", 4, '<'},
                     {"&gt;", 4, '>'},
                     {"&apos;", 6, '\''},
                     {"&quot;", 6, '"'},
                     {"&amp;", 5, '&'}};
    for (const char* p = text; *p != '\0';) {
        bool replaced = false;
        if (*p == '&') {
            for (const auto& e : kEntities) {
                if (strncmp(p, e.entity, e.length) == 0) {
                    out += e.replacement;
                    p += e.length;
                    replaced = true;
                    break;
                }
            }
        }
        if (!replaced) {
            out += *p++;
        }
    }
    return out;
}

namespace {

const char* Text(rk_elem_t* elem, const char* name) {
    const char* text = rk_child_get_string(elem, name);
    return text != nullptr ? text : "";
}

// Array items: false only for these four texts, as the runtime reads them.
bool ItemBool(const char* text) {
    return !(strcmp(text, "0") == 0 || strcmp(text, "no") == 0 || strcmp(text, "off") == 0 ||
             strcmp(text, "false") == 0);
}

void ReadPointFields(rk_elem_t* elem, PointData* p) {
    p->x = static_cast<int32_t>(strtol(Text(elem, "x"), nullptr, 10));
    p->y = static_cast<int32_t>(strtol(Text(elem, "y"), nullptr, 10));
    p->label = DecodeEntities(Text(elem, "label"));
}

template <typename F>
void ForEachItem(rk_elem_t* wrapper, F read) {
    rk_iterator_t it = rk_child_iterator(wrapper);
    for (rk_elem_t* item = rk_iterator_next(&it); item != nullptr; item = rk_iterator_next(&it)) {
        read(item, rk_elem_get_content(item));
    }
}

}  // namespace

void ReadRecord20(rk_elem_t* e, Record20Data* d) {
    d->name = DecodeEntities(Text(e, "name"));
    char* secret = rk_child_get_string_encrypted(e, "secret", nullptr);
    d->secret = secret != nullptr ? secret : "";
    rk_free(secret);
    d->small = static_cast<int32_t>(strtol(Text(e, "small"), nullptr, 10));
    d->negative = static_cast<int32_t>(strtol(Text(e, "negative"), nullptr, 10));
    d->count = static_cast<uint32_t>(strtoul(Text(e, "count"), nullptr, 10));
    d->limit = static_cast<uint32_t>(strtoul(Text(e, "limit"), nullptr, 10));
    d->offset = strtoll(Text(e, "offset"), nullptr, 10);
    d->stamp = strtoll(Text(e, "stamp"), nullptr, 10);
    d->size = strtoull(Text(e, "size"), nullptr, 10);
    d->id = strtoull(Text(e, "id"), nullptr, 10);
    d->enabled = rk_child_get_bool(e, "enabled", 0) != 0;
    ReadPointFields(rk_elem_child(rk_elem_child(e, "origin"), "point"), &d->origin);
    ReadPointFields(rk_elem_child(e, "point"), &d->point);
    d->corners.clear();
    ForEachItem(rk_elem_child(e, "corners"), [d](rk_elem_t* item, const char*) {
        d->corners.emplace_back();
        ReadPointFields(item, &d->corners.back());
    });
    d->texts.clear();
    ForEachItem(rk_elem_child(e, "texts"),
                [d](rk_elem_t*, const char* t) { d->texts.push_back(DecodeEntities(t)); });
    d->smalls.clear();
    ForEachItem(rk_elem_child(e, "smalls"), [d](rk_elem_t*, const char* t) {
        d->smalls.push_back(static_cast<int32_t>(strtol(t, nullptr, 10)));
    });
    d->counts.clear();
    ForEachItem(rk_elem_child(e, "counts"), [d](rk_elem_t*, const char* t) {
        d->counts.push_back(static_cast<uint32_t>(strtoul(t, nullptr, 10)));
    });
    d->offsets.clear();
    ForEachItem(rk_elem_child(e, "offsets"),
                [d](rk_elem_t*, const char* t) { d->offsets.push_back(strtoll(t, nullptr, 10)); });
    d->sizes.clear();
    ForEachItem(rk_elem_child(e, "sizes"),
                [d](rk_elem_t*, const char* t) { d->sizes.push_back(strtoull(t, nullptr, 10)); });
    d->flags.clear();
    ForEachItem(rk_elem_child(e, "flags"),
                [d](rk_elem_t*, const char* t) { d->flags.push_back(ItemBool(t)); });
}

void ReadBatch(rk_elem_t* e, std::vector<ItemData>* items) {
    items->clear();
    rk_elem_t* wrapper = rk_elem_child(e, "items");
    items->reserve(rk_elem_child_count(wrapper));
    ForEachItem(wrapper, [items](rk_elem_t* elem, const char*) {
        items->emplace_back();
        ItemData& item = items->back();
        item.id = strtoull(Text(elem, "id"), nullptr, 10);
        item.name = DecodeEntities(Text(elem, "name"));
        item.quantity = static_cast<int32_t>(strtol(Text(elem, "quantity"), nullptr, 10));
        item.active = rk_child_get_bool(elem, "active", 0) != 0;
    });
}

namespace {

void DecryptInPlace(rk_elem_t* elem) {
    rk_iterator_t it = rk_child_iterator(elem);
    for (rk_elem_t* child = rk_iterator_next(&it); child != nullptr;
         child = rk_iterator_next(&it)) {
        if (rk_elem_get_attr(child, "encrypted") != nullptr) {
            char* clear = rk_child_get_string_encrypted(elem, rk_elem_get_name(child), nullptr);
            rk_elem_set_content(child, clear != nullptr ? clear : "(undecryptable)");
            rk_free(clear);
        } else {
            DecryptInPlace(child);
        }
    }
}

}  // namespace

std::string ComparableText(rk_elem_t* elem) {
    DecryptInPlace(elem);
    char* text = rk_elem_sprintf(elem);
    std::string result = text != nullptr ? text : "";
    rk_free(text);
    return result;
}

namespace {

size_t AppendAnswer(char* data, size_t size, size_t count, void* answer) {
    static_cast<std::string*>(answer)->append(data, size * count);
    return size * count;
}

}  // namespace

CURL* NewLibrkLikeHandle(int port, std::string* answer, curl_slist** headers) {
    CURL* easy = curl_easy_init();
    if (easy == nullptr) {
        Die("curl_easy_init failed");
    }
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/teza";
    curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
    curl_easy_setopt(easy, CURLOPT_PROXY, "");  // librk never uses a proxy for loopback
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_TCP_NODELAY, 1L);
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "librk/0.1.0");
    curl_easy_setopt(easy, CURLOPT_HTTPAUTH, static_cast<long>(CURLAUTH_BASIC));
    curl_easy_setopt(easy, CURLOPT_USERNAME, kLogin);
    curl_easy_setopt(easy, CURLOPT_PASSWORD, kPassword);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &AppendAnswer);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, static_cast<void*>(answer));
    for (const char* header :
         {"Content-Type: application/xml; charset=utf-8", "Accept: application/xml",
          "X-Teza-Api-Version: 1.21", "X-Teza-Server-Type: 1", "Expect:"}) {
        *headers = curl_slist_append(*headers, header);
    }
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, *headers);
    return easy;
}

}  // namespace teza_bench
