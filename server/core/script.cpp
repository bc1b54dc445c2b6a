#include "script.h"

#include <stdlib.h>

#include <fstream>
#include <sstream>

namespace tezad {

namespace {

std::string Trim(const std::string& text) {
    const char* space = " \t\r\n";
    size_t begin = text.find_first_not_of(space);
    if (begin == std::string::npos) {
        return "";
    }
    return text.substr(begin, text.find_last_not_of(space) - begin + 1);
}

// Splits off the first word of `rest`, leaving the remainder (trimmed) in `rest`.
std::string NextWord(std::string* rest) {
    std::string text = Trim(*rest);
    size_t end = text.find_first_of(" \t");
    std::string word = text.substr(0, end);
    *rest = end == std::string::npos ? "" : Trim(text.substr(end));
    return word;
}

bool ParseNumber(const std::string& text, long min, long max, long* out) {
    if (text.empty()) {
        return false;
    }
    char* end = nullptr;
    long value = strtol(text.c_str(), &end, 10);
    if (*end != '\0' || value < min || value > max) {
        return false;
    }
    *out = value;
    return true;
}

}  // namespace

std::unique_ptr<Script> Script::Load(const std::string& path, std::string* error) {
    std::ifstream in(path);
    if (!in) {
        *error = path + ": cannot be read";
        return nullptr;
    }
    std::stringstream text;
    text << in.rdbuf();
    return Parse(text.str(), path, error);
}

std::unique_ptr<Script> Script::Parse(const std::string& text, const std::string& origin,
                                      std::string* error) {
    std::unique_ptr<Script> script(new Script);
    std::istringstream lines(text);
    std::string line;
    int number = 0;
    while (std::getline(lines, line)) {
        ++number;
        auto fail = [&](const std::string& what) {
            *error = origin + ":" + std::to_string(number) + ": " + what;
            return nullptr;
        };
        std::string rest = Trim(line);
        if (rest.empty() || rest[0] == '#') {
            continue;
        }
        Rule rule;
        rule.api = NextWord(&rest);
        std::string word = NextWord(&rest);
        while (word.compare(0, 6, "delay=") == 0 || word.compare(0, 6, "times=") == 0) {
            long value = 0;
            if (!ParseNumber(word.substr(6), word[0] == 'd' ? 0 : 1, 3600000, &value)) {
                return fail("bad option '" + word + "'");
            }
            if (word[0] == 'd') {
                rule.action.delay = std::chrono::milliseconds(value);
            } else {
                rule.remaining = static_cast<int>(value);
            }
            word = NextWord(&rest);
        }
        using Kind = ScriptAction::Kind;
        ScriptAction& action = rule.action;
        if (word == "pass") {
            action.kind = Kind::Pass;
            std::string xml = "<results status=\"passed\">" + rest + "</results>";
            char parseError[200];
            rule.children.reset(rk_elem_parse(xml.data(), xml.size(), parseError,
                                              static_cast<int>(sizeof parseError)));
            if (rule.children == nullptr) {
                return fail(std::string("the children of 'pass' are not XML: ") + parseError);
            }
        } else if (word == "fail") {
            action.kind = Kind::Fail;
            long errnum = 0;
            if (!ParseNumber(NextWord(&rest), -2147483647L, 2147483647L, &errnum)) {
                return fail("'fail' needs an error number and a reason");
            }
            action.number = static_cast<int>(errnum);
            action.text = rest;
        } else if (word == "echo") {
            action.kind = Kind::Echo;
        } else if (word == "http") {
            action.kind = Kind::Http;
            long status = 0;
            if (!ParseNumber(NextWord(&rest), 100, 599, &status)) {
                return fail("'http' needs a status from 100 to 599");
            }
            action.number = static_cast<int>(status);
            action.text = rest;
        } else if (word == "raw") {
            action.kind = Kind::Raw;
            action.text = rest;
        } else if (word == "malformed") {
            action.kind = Kind::Malformed;
        } else if (word == "truncated") {
            action.kind = Kind::Truncated;
        } else if (word == "drop") {
            action.kind = Kind::Drop;
        } else if (word == "refuse") {
            action.kind = Kind::Refuse;
        } else {
            return fail("unknown action '" + word + "'");
        }
        if (rule.api.empty()) {
            return fail("no API name");
        }
        script->_rules.push_back(std::move(rule));
    }
    for (Rule& rule : script->_rules) {
        rule.action.children = rule.children.get();
    }
    return script;
}

std::optional<ScriptAction> Script::Next(const std::string& api) {
    std::lock_guard<std::mutex> lock(_mutex);
    for (Rule& rule : _rules) {
        if ((rule.api == api || rule.api == "*") && rule.remaining != 0) {
            if (rule.remaining > 0) {
                --rule.remaining;
            }
            return rule.action;
        }
    }
    return std::nullopt;
}

}  // namespace tezad
