#include "demo_service.h"

#include <new>
#include <stdexcept>

namespace tezad {

namespace {

const int64_t kMaxQuota = 1000000;

bool IsAccountName(const std::string& name) {
    if (name.empty() || name.size() > 64) {
        return false;
    }
    auto letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    if (!letter(name[0])) {
        return false;
    }
    for (char c : name) {
        if (!letter(c) && !(c >= '0' && c <= '9') && c != '-' && c != '_') {
            return false;
        }
    }
    return true;
}

std::string Quoted(const std::string& text) {
    return "\"" + text + "\"";
}

void AddBool(rk_elem_t* parent, const char* name, bool value) {
    if (rk_child_add_bool(parent, name, value ? 1 : 0) == nullptr) {
        throw std::bad_alloc();
    }
}

void AddSecret(rk_elem_t* parent, const char* name, const std::string& value) {
    if (rk_child_add_string_encrypted(parent, name, value.c_str(), nullptr) == nullptr) {
        throw std::bad_alloc();
    }
}

void AddList(rk_elem_t* parent, const char* name, const char* itemName,
             const std::vector<std::string>& items) {
    rk_elem_t* list = AddElem(parent, name);
    for (const std::string& item : items) {
        AddText(list, itemName, item);
    }
}

}  // namespace

void DemoService::Install(ServiceCore* core) {
    auto bind = [this](ElemPtr (DemoService::*member)(const Args&)) {
        return [this, member](const Args& args) { return (this->*member)(args); };
    };
    core->AddApi("account-create", bind(&DemoService::AccountCreate));
    core->AddApi("account-get", bind(&DemoService::AccountGet));
    core->AddApi("account-list", bind(&DemoService::AccountList));
    core->AddApi("account-delete", bind(&DemoService::AccountDelete));
    core->AddApi("account-verify-secret", bind(&DemoService::AccountVerifySecret));
    core->AddApi("job-submit", bind(&DemoService::JobSubmit));
    core->AddApi("job-get", bind(&DemoService::JobGet));
    core->AddApi("job-list", bind(&DemoService::JobList));
    core->AddApi("job-cancel", bind(&DemoService::JobCancel));
    // The demo's description, made from demo/demo.teza at build time.
    std::string error;
    if (!core->AddDescription(tezad_demo_description, "the demo service's description", &error)) {
        throw std::logic_error(error);
    }
}

DemoService::Account& DemoService::FindAccount(const std::string& name) {
    auto it = _accounts.find(name);
    if (it == _accounts.end()) {
        throw ApiError{kErrNotFound, "no account named " + Quoted(name)};
    }
    return it->second;
}

DemoService::Job& DemoService::FindJob(int64_t id) {
    auto it = _jobs.find(id);
    if (it == _jobs.end()) {
        throw ApiError{kErrNotFound, "no job " + std::to_string(id)};
    }
    return it->second;
}

ElemPtr DemoService::AccountCreate(const Args& args) {
    Account account;
    account.name = args.Required("name", kErrInvalid);
    if (!IsAccountName(account.name)) {
        throw ApiError{kErrInvalid,
                       "invalid account name " + Quoted(account.name) +
                           ": use 1 to 64 letters, digits, '-' or '_', starting with a letter"};
    }
    account.fullName = args.Text("full-name").value_or("");
    account.quota = args.Integer("quota", 1000, 0, kMaxQuota, kErrInvalid);
    account.enabled = args.Bool("enabled", true);
    if (std::optional<std::string> secret = args.Secret("secret", kErrSecret)) {
        account.hasSecret = true;
        account.secret = *secret;
    }
    if (rk_elem_t* address = args.Child("address")) {
        Args fields(address);
        account.hasAddress = true;
        account.street = fields.Text("street").value_or("");
        account.city = fields.Text("city").value_or("");
    }
    account.tags = args.List("tags");

    std::lock_guard<std::mutex> lock(_mutex);
    if (_accounts.count(account.name) != 0) {
        throw ApiError{kErrExists, "an account named " + Quoted(account.name) + " exists already"};
    }
    account.id = ++_lastAccountId;
    ElemPtr result = NewPassed();
    AddText(result.get(), "account-id", std::to_string(account.id));
    _accounts.emplace(account.name, std::move(account));
    return result;
}

ElemPtr DemoService::AccountGet(const Args& args) {
    const std::string name = args.Required("name", kErrInvalid);
    std::lock_guard<std::mutex> lock(_mutex);
    const Account& account = FindAccount(name);
    ElemPtr result = NewPassed();
    rk_elem_t* info = AddElem(result.get(), "account-info");
    AddText(info, "account-id", std::to_string(account.id));
    AddText(info, "name", account.name);
    AddText(info, "full-name", account.fullName);
    AddText(info, "quota", std::to_string(account.quota));
    AddBool(info, "enabled", account.enabled);
    if (account.hasSecret) {
        AddSecret(info, "secret", account.secret);
    }
    if (account.hasAddress) {
        rk_elem_t* address = AddElem(info, "address");
        AddText(address, "street", account.street);
        AddText(address, "city", account.city);
    }
    AddList(info, "tags", "tag", account.tags);
    return result;
}

ElemPtr DemoService::AccountList(const Args&) {
    std::lock_guard<std::mutex> lock(_mutex);
    ElemPtr result = NewPassed();
    AddText(result.get(), "count", std::to_string(_accounts.size()));
    rk_elem_t* list = AddElem(result.get(), "accounts");
    for (const auto& [name, account] : _accounts) {
        rk_elem_t* info = AddElem(list, "account-info");
        AddText(info, "account-id", std::to_string(account.id));
        AddText(info, "name", name);
        AddText(info, "full-name", account.fullName);
        AddBool(info, "enabled", account.enabled);
        AddBool(info, "has-secret", account.hasSecret);
    }
    return result;
}

ElemPtr DemoService::AccountDelete(const Args& args) {
    const std::string name = args.Required("name", kErrInvalid);
    std::lock_guard<std::mutex> lock(_mutex);
    FindAccount(name);
    int pending = 0;
    for (const auto& [id, job] : _jobs) {
        if (job.account == name && (job.state == "queued" || job.state == "held")) {
            ++pending;
        }
    }
    if (pending > 0) {
        throw ApiError{kErrState, "account " + Quoted(name) + " has " + std::to_string(pending) +
                                      " job(s) <queued> or <held>: cancel them first"};
    }
    _accounts.erase(name);
    return NewPassed();
}

ElemPtr DemoService::AccountVerifySecret(const Args& args) {
    const std::string name = args.Required("name", kErrInvalid);
    std::optional<std::string> secret = args.Secret("secret", kErrSecret);
    if (!secret) {
        throw ApiError{kErrInvalid, "the argument <secret> is missing"};
    }
    std::lock_guard<std::mutex> lock(_mutex);
    const Account& account = FindAccount(name);
    ElemPtr result = NewPassed();
    AddBool(result.get(), "matches", account.hasSecret && account.secret == *secret);
    return result;
}

ElemPtr DemoService::JobSubmit(const Args& args) {
    Job job;
    job.account = args.Required("account", kErrInvalid);
    job.command = args.Required("command", kErrInvalid);
    job.arguments = args.List("arguments");
    job.priority = args.Integer("priority", 0, -20, 20, kErrInvalid);
    job.state = args.Bool("hold", false) ? "held" : "queued";
    std::lock_guard<std::mutex> lock(_mutex);
    if (!FindAccount(job.account).enabled) {
        throw ApiError{kErrState, "account " + Quoted(job.account) + " is disabled"};
    }
    job.id = ++_lastJobId;
    ElemPtr result = NewPassed();
    AddText(result.get(), "job-id", std::to_string(job.id));
    _jobs.emplace(job.id, std::move(job));
    return result;
}

namespace {

void AddJobInfo(rk_elem_t* parent, int64_t id, const std::string& account,
                const std::string& command, const std::vector<std::string>& arguments,
                int64_t priority, const std::string& state) {
    rk_elem_t* info = AddElem(parent, "job-info");
    AddText(info, "job-id", std::to_string(id));
    AddText(info, "account", account);
    AddText(info, "command", command);
    AddList(info, "arguments", "argument", arguments);
    AddText(info, "priority", std::to_string(priority));
    AddText(info, "state", state);
}

}  // namespace

ElemPtr DemoService::JobGet(const Args& args) {
    args.Required("job-id", kErrInvalid);
    const int64_t id = args.Integer("job-id", 0, 1, INT64_MAX, kErrInvalid);
    std::lock_guard<std::mutex> lock(_mutex);
    const Job& job = FindJob(id);
    ElemPtr result = NewPassed();
    AddJobInfo(result.get(), job.id, job.account, job.command, job.arguments, job.priority,
               job.state);
    return result;
}

ElemPtr DemoService::JobList(const Args& args) {
    std::optional<std::string> account = args.Text("account");
    std::lock_guard<std::mutex> lock(_mutex);
    ElemPtr result = NewPassed();
    rk_elem_t* count = AddText(result.get(), "count", "0");
    rk_elem_t* list = AddElem(result.get(), "jobs");
    size_t listed = 0;
    for (const auto& [id, job] : _jobs) {
        if (!account || job.account == *account) {
            AddJobInfo(list, job.id, job.account, job.command, job.arguments, job.priority,
                       job.state);
            ++listed;
        }
    }
    rk_elem_set_content(count, std::to_string(listed).c_str());
    return result;
}

ElemPtr DemoService::JobCancel(const Args& args) {
    args.Required("job-id", kErrInvalid);
    const int64_t id = args.Integer("job-id", 0, 1, INT64_MAX, kErrInvalid);
    std::lock_guard<std::mutex> lock(_mutex);
    Job& job = FindJob(id);
    if (job.state != "queued" && job.state != "held") {
        throw ApiError{kErrState, "job " + std::to_string(id) + " is " + Quoted(job.state) +
                                      ": only <queued> & <held> jobs can be cancelled"};
    }
    job.state = "cancelled";
    return NewPassed();
}

}  // namespace tezad
