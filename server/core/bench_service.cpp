#include "bench_service.h"

#include <stdint.h>
#include <stdio.h>

#include <new>
#include <string>
#include <vector>

namespace tezad {

namespace {

const int kErrBenchInvalid = 15201;

void AddBool(rk_elem_t* parent, const char* name, bool value) {
    if (rk_child_add_bool(parent, name, value ? 1 : 0) == nullptr) {
        throw std::bad_alloc();
    }
}

void AddNumber(rk_elem_t* parent, const char* name, long long value) {
    AddText(parent, name, std::to_string(value));
}

// Writes `value` in `base` (10 or 16, lower-case digits), zero-padded to at least `width`
// digits, at `out`; returns the end. What snprintf's "%0*llu" and "%0*llx" write, at a
// tenth of their cost, which counts for the half million numbers of a big answer.
char* PutNumber(char* out, unsigned long long value, int width, unsigned base) {
    static const char kDigits[] = "0123456789abcdef";
    char reversed[24];
    int n = 0;
    do {
        reversed[n++] = kDigits[value % base];
        value /= base;
    } while (value != 0);
    for (int pad = width - n; pad > 0; --pad) {
        *out++ = '0';
    }
    while (n > 0) {
        *out++ = reversed[--n];
    }
    return out;
}

char* PutText(char* out, const char* text) {
    while (*text != '\0') {
        *out++ = *text++;
    }
    return out;
}

// The text of a nested element's child; fails the call when it is absent.
std::string NestedText(rk_elem_t* nested, const char* name) {
    return Args(nested).Required(name, kErrBenchInvalid);
}

}  // namespace

void BenchService::Install(ServiceCore* core) {
    core->AddApi("bench-call", &BenchService::Call);
    core->AddApi("bench-volumes", &BenchService::Volumes);
}

// The response of each field, from the request (the gRPC reference computes the same):
//   request-id    the request's
//   status        "accepted for " + user-name
//   code          age + priority
//   processed-at  account-id + 1000
//   accepted      active
//   summary       user-name, the address's city, the number of tags
//   labels        "label-" + each tag
//   score         zip % 1000 + priority
//   message       "note: " + note
ElemPtr BenchService::Call(const Args& args) {
    const std::string id = args.Required("request-id", kErrBenchInvalid);
    const std::string user = args.Required("user-name", kErrBenchInvalid);
    args.Required("email", kErrBenchInvalid);
    const int64_t age = args.Integer("age", 0, INT32_MIN, INT32_MAX, kErrBenchInvalid);
    const int64_t account =
        args.Integer("account-id", 0, INT64_MIN + 1, INT64_MAX - 1000, kErrBenchInvalid);
    const bool active = args.Bool("active", false);
    rk_elem_t* address = args.Child("address");
    if (address == nullptr) {
        throw ApiError{kErrBenchInvalid, "the argument <address> is missing"};
    }
    const std::string city = NestedText(address, "city");
    const int64_t zip = Args(address).Integer("zip", 0, 0, INT32_MAX, kErrBenchInvalid);
    const std::vector<std::string> tags = args.List("tags");
    const int64_t priority = args.Integer("priority", 0, -1000000, 1000000, kErrBenchInvalid);
    const std::string note = args.Required("note", kErrBenchInvalid);

    ElemPtr result = NewPassed();
    rk_elem_t* r = result.get();
    AddText(r, "request-id", id);
    AddText(r, "status", "accepted for " + user);
    AddNumber(r, "code", age + priority);
    AddNumber(r, "processed-at", account + 1000);
    AddBool(r, "accepted", active);
    rk_elem_t* summary = AddElem(r, "summary");
    AddText(summary, "name", user);
    AddText(summary, "city", city);
    AddNumber(summary, "tag-count", static_cast<long long>(tags.size()));
    rk_elem_t* labels = AddElem(r, "labels");
    for (const std::string& tag : tags) {
        AddText(labels, "string", "label-" + tag);
    }
    AddNumber(r, "score", zip % 1000 + priority);
    AddText(r, "message", "note: " + note);
    return result;
}

// Volume i: "volume-<i, 6 digits>", a UUID made of i, size (i + 1) GiB, used i MiB, online
// when i is even, one mount on node "node-<i % 16>" at "/srv/volume-<i>",
// read-only when i is a multiple of 3.
ElemPtr BenchService::Volumes(const Args& args) {
    const int64_t count = args.Integer("count", 0, 0, kBenchMaxVolumes, kErrBenchInvalid);
    ElemPtr result = NewPassed();
    rk_elem_t* volumes = AddElem(result.get(), "volumes");
    // Texts are written into one buffer: "/srv/" and the name at its start, the other texts
    // after them.
    char text[128];
    char* const name = PutText(text, "/srv/");
    char* const other = name + 32;
    for (int64_t i = 0; i < count; ++i) {
        const auto u = static_cast<unsigned long long>(i);
        rk_elem_t* volume = AddElem(volumes, "volume");
        *PutNumber(PutText(name, "volume-"), u, 6, 10) = '\0';
        AddText(volume, "name", name);
        char* end =
            PutNumber(PutText(PutNumber(other, u, 8, 16), "-0000-4000-8000-"), u * 7919, 12, 16);
        *end = '\0';
        AddText(volume, "uuid", other);
        *PutNumber(other, (u + 1) << 30, 1, 10) = '\0';
        AddText(volume, "size", other);
        *PutNumber(other, u << 20, 1, 10) = '\0';
        AddText(volume, "used", other);
        AddBool(volume, "online", i % 2 == 0);
        rk_elem_t* mount = AddElem(AddElem(volume, "mounts"), "mount");
        *PutNumber(PutText(other, "node-"), u % 16, 2, 10) = '\0';
        AddText(mount, "node", other);
        AddText(mount, "path", text);
        AddBool(mount, "read-only", i % 3 == 0);
    }
    return result;
}

}  // namespace tezad
