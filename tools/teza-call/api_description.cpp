#include "api_description.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <limits>

namespace teza_call {

using json = nlohmann::ordered_json;

namespace {

std::vector<rk_elem_t*> Children(rk_elem_t* elem) {
    std::vector<rk_elem_t*> children;
    if (elem == nullptr) {
        return children;
    }
    rk_iterator_t it = rk_child_iterator(elem);
    while (rk_elem_t* child = rk_iterator_next(&it)) {
        children.push_back(child);
    }
    return children;
}

std::string Text(rk_elem_t* elem) {
    const char* content = elem == nullptr ? nullptr : rk_elem_get_content(elem);
    return content == nullptr ? "" : Decoded(content);
}

std::string ChildText(rk_elem_t* elem, const char* name) {
    return Text(elem == nullptr ? nullptr : rk_elem_child(elem, name));
}

bool ChildFlag(rk_elem_t* elem, const char* name) {
    return ChildText(elem, name) == "true";
}

// A path segment: a name with an optional "[N]".
struct Segment {
    std::string name;
    bool indexed = false;
    size_t index = 0;
};

bool ParseSegment(const std::string& text, Segment* segment) {
    const size_t open = text.find('[');
    segment->name = text.substr(0, open);
    if (open == std::string::npos) {
        return !segment->name.empty();
    }
    if (text.back() != ']' || open + 2 > text.size() - 1) {
        return false;
    }
    const std::string digits = text.substr(open + 1, text.size() - open - 2);
    if (digits.find_first_not_of("0123456789") != std::string::npos || digits.size() > 9) {
        return false;
    }
    segment->indexed = true;
    segment->index = static_cast<size_t>(strtoul(digits.c_str(), nullptr, 10));
    return !segment->name.empty();
}

std::vector<std::string> Split(const std::string& path) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (true) {
        const size_t slash = path.find('/', start);
        parts.push_back(path.substr(start, slash - start));
        if (slash == std::string::npos) {
            return parts;
        }
        start = slash + 1;
    }
}

std::string Suggest(const std::string& name, const TypeInfo& type) {
    std::vector<std::string> names;
    for (const FieldInfo& field : type.fields) {
        names.push_back(field.name);
    }
    std::vector<std::string> close = CloseNames(name, names);
    std::string text;
    if (!close.empty()) {
        text = "; did you mean ";
        for (size_t i = 0; i < close.size(); ++i) {
            text += (i == 0 ? "" : i + 1 == close.size() ? " or " : ", ") + close[i];
        }
        text += "?";
    } else if (names.empty()) {
        text = "; it has no fields";
    } else {
        text = "; its fields are ";
        for (size_t i = 0; i < names.size(); ++i) {
            text += (i == 0 ? "" : ", ") + names[i];
        }
    }
    return text;
}

std::string TypeText(const FieldInfo& field) {
    std::string text = field.type + (field.array ? "[]" : "");
    if (field.type != field.basic && field.type != field.record) {
        text += " (" + (field.basic.empty() ? field.record : field.basic) + ")";
    }
    return text;
}

std::string FlagText(const FieldInfo& field) {
    std::string text;
    for (const auto& [flag, on] : {std::pair<const char*, bool>{"optional", field.optional},
                                   {"encrypted", field.encrypted},
                                   {"non-empty", field.nonEmpty},
                                   {"validate", field.validate}}) {
        if (on) {
            text += (text.empty() ? "" : " ") + std::string(flag);
        }
    }
    return text;
}

rk_elem_t* AddChild(rk_elem_t* parent, const std::string& name) {
    rk_elem_t* child = rk_elem_new(name.c_str());
    if (child == nullptr) {
        return nullptr;
    }
    if (rk_child_add(parent, child) == nullptr) {
        rk_elem_free(child);
        return nullptr;
    }
    return child;
}

// The text of a JSON scalar as it goes on the wire.
bool ScalarText(const json& value, std::string* text) {
    if (value.is_string()) {
        *text = value.get<std::string>();
    } else if (value.is_boolean()) {
        *text = value.get<bool>() ? "true" : "false";
    } else if (value.is_number_integer() || value.is_number_unsigned()) {
        *text = value.dump();
    } else if (value.is_number_float()) {
        *text = value.dump();
    } else {
        return false;
    }
    return true;
}

}  // namespace

const FieldInfo* TypeInfo::Field(const std::string& name) const {
    for (const FieldInfo& field : fields) {
        if (field.name == name) {
            return &field;
        }
    }
    return nullptr;
}

bool ApiDescription::Read(rk_elem_t* result, const std::string& api, std::string* error) {
    if (ChildText(result, "description-version") != "1") {
        *error = "the server's description has version \"" +
                 ChildText(result, "description-version") + "\"; teza-call reads version 1";
        return false;
    }
    for (rk_elem_t* ns : Children(rk_elem_child(result, "namespaces"))) {
        for (rk_elem_t* family : Children(rk_elem_child(ns, "families"))) {
            for (rk_elem_t* a : Children(rk_elem_child(family, "apis"))) {
                if (ChildText(a, "name") != api) {
                    continue;
                }
                _api = api;
                _namespace = ChildText(ns, "name");
                _family = ChildText(family, "name");
                _familyId = ChildText(family, "id");
                _input = ChildText(a, "input");
                _output = ChildText(a, "output");
                for (rk_elem_t* t : Children(rk_elem_child(ns, "types"))) {
                    TypeInfo type;
                    type.name = ChildText(t, "name");
                    for (rk_elem_t* f : Children(rk_elem_child(t, "fields"))) {
                        FieldInfo field;
                        field.name = ChildText(f, "name");
                        field.type = ChildText(f, "type");
                        field.basic = ChildText(f, "basic");
                        field.record = ChildText(f, "record");
                        field.array = ChildFlag(f, "array");
                        field.optional = ChildFlag(f, "optional");
                        field.encrypted = ChildFlag(f, "encrypted");
                        field.nonEmpty = ChildFlag(f, "non-empty");
                        field.validate = ChildFlag(f, "validate");
                        field.nestedTypedef = ChildFlag(f, "nested-typedef");
                        type.fields.push_back(field);
                    }
                    _types.push_back(type);
                }
                for (rk_elem_t* t : Children(rk_elem_child(ns, "typedefs"))) {
                    TypedefInfo typedef_;
                    typedef_.name = ChildText(t, "name");
                    typedef_.target = ChildText(t, "target");
                    for (rk_elem_t* name : Children(rk_elem_child(t, "chain"))) {
                        typedef_.chain.push_back(Text(name));
                    }
                    _typedefs.push_back(typedef_);
                }
                for (const std::string* end : {&_input, &_output}) {
                    if (!end->empty() && Type(*end) == nullptr) {
                        *error = "the server's description of " + api + " lacks the type " + *end;
                        return false;
                    }
                }
                return true;
            }
        }
    }
    *error = "the server's description does not hold " + api;
    return false;
}

const TypeInfo* ApiDescription::Type(const std::string& name) const {
    for (const TypeInfo& type : _types) {
        if (!name.empty() && type.name == name) {
            return &type;
        }
    }
    return nullptr;
}

// The layouts of docs/schema.md ("On the wire"): a typedef T of chain H[0..n-1] gives a request
// F, T, H[0]..H[n-1] for a single record and F, T, H[0]..H[n-2], then items H[n-1] for an array;
// a result has one level less.
Shape ApiDescription::RequestShape(const FieldInfo& field) const {
    Shape shape;
    const TypedefInfo* typedef_ = nullptr;
    for (const TypedefInfo& t : _typedefs) {
        if (t.name == field.type) {
            typedef_ = &t;
        }
    }
    if (field.array) {
        if (typedef_ == nullptr) {
            shape.item = !field.record.empty()     ? field.record
                         : field.basic == "bool"   ? "boolean"
                         : field.basic == "string" ? "string"
                                                   : "integer";
        } else if (typedef_->chain.empty()) {
            shape.item = typedef_->name;
        } else {
            shape.levels.push_back(typedef_->name);
            shape.levels.insert(shape.levels.end(), typedef_->chain.begin(),
                                typedef_->chain.end() - 1);
            shape.item = typedef_->chain.back();
        }
        return shape;
    }
    if (field.record.empty()) {
        return shape;
    }
    if (typedef_ == nullptr) {
        shape.levels.push_back(field.record);
    } else {
        shape.levels.push_back(typedef_->name);
        shape.levels.insert(shape.levels.end(), typedef_->chain.begin(), typedef_->chain.end());
    }
    if (shape.levels.front() == field.name) {
        shape.levels.erase(shape.levels.begin());
    }
    return shape;
}

Shape ApiDescription::ResultShape(const FieldInfo& field) const {
    Shape shape = RequestShape(field);
    const bool typedefChain = field.nestedTypedef && !field.record.empty();
    if (field.array) {
        // Every child of the wrapper is an item, whatever its name.
        if (typedefChain) {
            for (const TypedefInfo& t : _typedefs) {
                if (t.name == field.type && t.chain.size() > 1) {
                    shape.itemLevels.assign(t.chain.begin() + 1, t.chain.end());
                }
            }
        }
        shape.levels.clear();
        shape.item.clear();
    } else if (typedefChain && !shape.levels.empty()) {
        shape.levels.pop_back();
    }
    return shape;
}

bool ApiDescription::CheckArgument(const std::string& path, const std::string& value, bool* encrypt,
                                   std::string* error) const {
    *encrypt = false;
    const TypeInfo* type = input();
    if (type == nullptr) {
        *error = _api + " takes no arguments";
        return false;
    }
    std::vector<Segment> segments;
    for (const std::string& part : Split(path)) {
        Segment segment;
        if (!ParseSegment(part, &segment)) {
            *error = path + ": \"" + part + "\" is not NAME or NAME[N]";
            return false;
        }
        segments.push_back(segment);
    }
    std::string done;
    size_t i = 0;
    auto next = [&](const std::string& expected, const std::string& what) {
        if (i >= segments.size()) {
            *error = path + ": " + done + " is " + what + "; continue with " + done + "/" +
                     expected + "/...";
            return false;
        }
        if (segments[i].name != expected) {
            *error = path + ": after " + done + " comes <" + expected + ">, not \"" +
                     segments[i].name + "\"";
            return false;
        }
        done += "/" + expected;
        ++i;
        return true;
    };
    while (true) {
        const Segment& segment = segments[i];
        const FieldInfo* field = type->Field(segment.name);
        if (field == nullptr) {
            *error = (done.empty() ? "" : path + ": ") + "unknown name \"" + segment.name +
                     "\": " + (done.empty() ? _api + "'s input " : done + " ") + type->name +
                     " has no such field" + Suggest(segment.name, *type);
            return false;
        }
        done += (done.empty() ? "" : "/") + segment.name;
        ++i;
        const Shape shape = RequestShape(*field);
        const std::string what =
            field->array ? "an array of " + TypeText(*field) : "a record " + field->record;
        for (const std::string& level : shape.levels) {
            if (!next(level, what)) {
                return false;
            }
        }
        if (field->array && !next(shape.item, what)) {
            return false;
        }
        if (!field->basic.empty()) {
            if (i != segments.size()) {
                *error = path + ": " + done + " is a " + field->basic + ", without fields";
                return false;
            }
            std::string why;
            if (!FitsBasic(field->basic, value, &why)) {
                *error = done + " is " + TypeText(*field) + ": " + why;
                return false;
            }
            *encrypt = field->encrypted && !field->array;
            return true;
        }
        type = Type(field->record);
        if (type == nullptr) {
            *error = "the server's description lacks the type " + field->record;
            return false;
        }
        if (i == segments.size()) {
            *error = path + ": " + done + " is a record " + type->name + "; give its fields, as " +
                     done + "/" +
                     (type->fields.empty() ? std::string("...") : type->fields[0].name) + "=...";
            return false;
        }
    }
}

bool ApiDescription::AddJson(const json& object, rk_elem_t* request, std::string* error) const {
    const TypeInfo* type = input();
    if (type == nullptr) {
        if (object.empty()) {
            return true;
        }
        *error = _api + " takes no arguments";
        return false;
    }
    return AddRecord(*type, object, request, "", error);
}

bool ApiDescription::AddRecord(const TypeInfo& type, const json& object, rk_elem_t* parent,
                               const std::string& path, std::string* error) const {
    if (!object.is_object()) {
        *error = (path.empty() ? "the input" : path) + " is a record " + type.name +
                 ": give a JSON object";
        return false;
    }
    for (const auto& [name, value] : object.items()) {
        const std::string where = path.empty() ? name : path + "/" + name;
        const FieldInfo* field = type.Field(name);
        if (field == nullptr) {
            *error = "unknown name \"" + name +
                     "\": " + (path.empty() ? "the input " : path + " ") + type.name +
                     " has no such field" + Suggest(name, type);
            return false;
        }
        if (value.is_null()) {
            continue;
        }
        const Shape shape = RequestShape(*field);
        auto addValue = [&](rk_elem_t* under, const std::string& elementName, const json& item,
                            const std::string& itemPath, bool encrypted) {
            if (!field->basic.empty()) {
                std::string text;
                std::string why;
                if (!ScalarText(item, &text)) {
                    *error = itemPath + " is " + TypeText(*field) + ": give a JSON scalar";
                    return false;
                }
                if (!FitsBasic(field->basic, text, &why)) {
                    *error = itemPath + " is " + TypeText(*field) + ": " + why;
                    return false;
                }
                rk_elem_t* added =
                    encrypted ? rk_child_add_string_encrypted(under, elementName.c_str(),
                                                              text.c_str(), nullptr)
                              : rk_child_add_string(under, elementName.c_str(), text.c_str());
                if (added == nullptr) {
                    *error = "cannot add " + itemPath + " to the request";
                    return false;
                }
                return true;
            }
            const TypeInfo* record = Type(field->record);
            rk_elem_t* elem = AddChild(under, elementName);
            if (record == nullptr || elem == nullptr) {
                *error = "cannot add " + itemPath + " to the request";
                return false;
            }
            return AddRecord(*record, item, elem, itemPath, error);
        };
        if (!field->array) {
            if (shape.levels.empty()) {
                if (!addValue(parent, name, value, where, field->encrypted)) {
                    return false;
                }
                continue;
            }
            rk_elem_t* elem = AddChild(parent, name);
            for (size_t l = 0; elem != nullptr && l + 1 < shape.levels.size(); ++l) {
                elem = AddChild(elem, shape.levels[l]);
            }
            if (elem == nullptr || !addValue(elem, shape.levels.back(), value, where, false)) {
                if (error->empty()) {
                    *error = "cannot add " + where + " to the request";
                }
                return false;
            }
            continue;
        }
        const json items = value.is_array() ? value : json::array({value});
        rk_elem_t* elem = AddChild(parent, name);
        for (size_t l = 0; elem != nullptr && l < shape.levels.size(); ++l) {
            elem = AddChild(elem, shape.levels[l]);
        }
        if (elem == nullptr) {
            *error = "cannot add " + where + " to the request";
            return false;
        }
        for (size_t n = 0; n < items.size(); ++n) {
            if (!addValue(elem, shape.item, items[n], where + "[" + std::to_string(n) + "]",
                          false)) {
                return false;
            }
        }
    }
    return true;
}

json ApiDescription::ResultJson(rk_elem_t* result, FILE* warnings) const {
    const TypeInfo* type = output();
    if (type == nullptr) {
        return UntypedJson(result);
    }
    return RecordJson(*type, result, "", warnings);
}

json ApiDescription::RecordJson(const TypeInfo& type, rk_elem_t* elem, const std::string& path,
                                FILE* warnings) const {
    json object = json::object();
    std::vector<std::string> known;
    for (const FieldInfo& field : type.fields) {
        known.push_back(field.name);
        rk_elem_t* child = rk_elem_child(elem, field.name.c_str());
        if (child == nullptr) {
            continue;
        }
        const std::string where = path.empty() ? field.name : path + "/" + field.name;
        const Shape shape = ResultShape(field);
        // Levels a server left out are not required: the fields are looked for where they are.
        auto descend = [](rk_elem_t* at, const std::vector<std::string>& levels) {
            for (const std::string& level : levels) {
                rk_elem_t* inner = rk_elem_child(at, level.c_str());
                if (inner == nullptr) {
                    break;
                }
                at = inner;
            }
            return at;
        };
        if (!field.array) {
            if (!field.basic.empty()) {
                object[field.name] = BasicJson(field, elem, child, where, warnings);
            } else if (const TypeInfo* record = Type(field.record)) {
                object[field.name] =
                    RecordJson(*record, descend(child, shape.levels), where, warnings);
            }
            continue;
        }
        json items = json::array();
        size_t n = 0;
        for (rk_elem_t* item : Children(child)) {
            const std::string itemPath = where + "[" + std::to_string(n++) + "]";
            if (!field.basic.empty()) {
                items.push_back(BasicJson(field, nullptr, item, itemPath, warnings));
            } else if (const TypeInfo* record = Type(field.record)) {
                items.push_back(
                    RecordJson(*record, descend(item, shape.itemLevels), itemPath, warnings));
            }
        }
        object[field.name] = items;
    }
    // Elements the type does not know are kept, untyped, rather than dropped unseen.
    for (rk_elem_t* child : Children(elem)) {
        const std::string name = rk_elem_get_name(child);
        if (std::find(known.begin(), known.end(), name) == known.end() && !object.contains(name)) {
            json untyped = json::object();
            untyped[name] =
                rk_elem_child_count(child) == 0 ? json(Text(child)) : UntypedJson(child);
            object[name] = untyped[name];
        }
    }
    return object;
}

json ApiDescription::BasicJson(const FieldInfo& field, rk_elem_t* parent, rk_elem_t* elem,
                               const std::string& path, FILE* warnings) const {
    std::string text = Text(elem);
    if (field.encrypted && !field.array && parent != nullptr) {
        if (rk_elem_get_attr(elem, "encrypted") == nullptr) {
            fprintf(warnings, "teza-call: %s is encrypted, but the server sent it in the clear\n",
                    path.c_str());
            return text;
        }
        char* plain = rk_child_get_string_encrypted(parent, field.name.c_str(), nullptr);
        if (plain == nullptr) {
            fprintf(warnings,
                    "teza-call: %s cannot be decrypted (another key, or changed on the way); "
                    "kept as sent\n",
                    path.c_str());
            return text;
        }
        text = plain;
        rk_free(plain);
    }
    std::string why;
    if (!FitsBasic(field.basic, text, &why)) {
        fprintf(warnings, "teza-call: %s is %s, but %s; kept as text\n", path.c_str(),
                TypeText(field).c_str(), why.c_str());
        return text;
    }
    if (field.basic == "bool") {
        std::string lower = text;
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return static_cast<char>(tolower(c)); });
        return lower == "true" || lower == "yes" || lower == "on" || lower == "1";
    }
    if (field.basic == "int32" || field.basic == "int64") {
        return static_cast<int64_t>(strtoll(text.c_str(), nullptr, 10));
    }
    if (field.basic == "uint32" || field.basic == "uint64") {
        return static_cast<uint64_t>(strtoull(text.c_str(), nullptr, 10));
    }
    return text;
}

std::string ApiDescription::Tree() const {
    std::string out = _api + " (namespace " + _namespace + ", family " + _family + ")\n";
    for (const auto& [role, name] :
         {std::pair<const char*, std::string>{"input", _input}, {"output", _output}}) {
        const TypeInfo* type = Type(name);
        if (type == nullptr) {
            out += std::string(role) + ": none\n";
            continue;
        }
        out += std::string(role) + ": " + type->name + "\n";
        std::vector<std::string> open = {type->name};
        TreeOf(*type, 1, &open, &out);
    }
    return out;
}

void ApiDescription::TreeOf(const TypeInfo& type, int depth, std::vector<std::string>* open,
                            std::string* out) const {
    for (const FieldInfo& field : type.fields) {
        std::string line =
            std::string(static_cast<size_t>(depth) * 2, ' ') + field.name + " : " + TypeText(field);
        const std::string flags = FlagText(field);
        if (!flags.empty()) {
            line += "  " + flags;
        }
        const TypeInfo* record = Type(field.record);
        const bool recursive =
            record != nullptr && std::find(open->begin(), open->end(), record->name) != open->end();
        *out += line + (recursive ? "  (as above)" : "") + "\n";
        if (record != nullptr && !recursive) {
            open->push_back(record->name);
            TreeOf(*record, depth + 1, open, out);
            open->pop_back();
        }
    }
}

std::string ApiDescription::Schema() const {
    const std::string indent = "    ";
    std::vector<std::string> blocks;
    std::string typedefs;
    for (const TypedefInfo& t : _typedefs) {
        typedefs += indent + "typedef " + t.name + " = " + t.target + ";\n";
    }
    if (!typedefs.empty()) {
        blocks.push_back(typedefs);
    }
    for (const TypeInfo& type : _types) {
        size_t nameWidth = 0;
        size_t typeWidth = 0;
        for (const FieldInfo& f : type.fields) {
            nameWidth = std::max(nameWidth, f.name.size());
            typeWidth = std::max(typeWidth, f.type.size() + (f.array ? 2 : 0));
        }
        std::string block = indent + "type " + type.name + " {\n";
        for (const FieldInfo& f : type.fields) {
            std::string typeText = f.type + (f.array ? "[]" : "");
            std::string line =
                indent + indent + f.name + std::string(nameWidth - f.name.size(), ' ') + " : ";
            const std::string flags = FlagText(f);
            if (flags.empty()) {
                line += typeText;
            } else {
                line += typeText + std::string(typeWidth - typeText.size(), ' ') + "  " + flags;
            }
            block += line + ";\n";
        }
        blocks.push_back(block + indent + "}\n");
    }
    std::string api = indent + indent + "api " + _api;
    if (!_input.empty()) {
        api += " input " + _input;
    }
    if (!_output.empty()) {
        api += " output " + _output;
    }
    blocks.push_back(indent + "family " + _family + " id " + _familyId + " {\n" + api + ";\n" +
                     indent + "}\n");
    std::string out = "namespace " + _namespace + " {\n";
    for (size_t i = 0; i < blocks.size(); ++i) {
        out += (i == 0 ? "" : "\n") + blocks[i];
    }
    return out + "}\n";
}

std::vector<std::string> CloseNames(const std::string& name,
                                    const std::vector<std::string>& names) {
    auto distance = [](const std::string& a, const std::string& b) {
        std::vector<size_t> row(b.size() + 1);
        for (size_t j = 0; j <= b.size(); ++j) {
            row[j] = j;
        }
        for (size_t i = 1; i <= a.size(); ++i) {
            size_t diagonal = row[0];
            row[0] = i;
            for (size_t j = 1; j <= b.size(); ++j) {
                const size_t above = row[j];
                row[j] = std::min(
                    {row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
                diagonal = above;
            }
        }
        return row[b.size()];
    };
    std::vector<std::pair<size_t, std::string>> scored;
    const size_t limit = std::max<size_t>(2, name.size() / 3);
    for (const std::string& candidate : names) {
        const size_t d = distance(name, candidate);
        const bool contains = name.size() >= 3 && candidate.find(name) != std::string::npos;
        if (d <= limit || contains) {
            scored.emplace_back(contains ? std::min(d, limit) : d, candidate);
        }
    }
    std::stable_sort(scored.begin(), scored.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<std::string> close;
    for (size_t i = 0; i < scored.size() && i < 3; ++i) {
        close.push_back(scored[i].second);
    }
    return close;
}

bool FitsBasic(const std::string& basic, const std::string& text, std::string* why) {
    if (basic == "string") {
        return true;
    }
    if (basic == "bool") {
        std::string lower = text;
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return static_cast<char>(tolower(c)); });
        for (const char* word : {"true", "false", "yes", "no", "on", "off", "1", "0"}) {
            if (lower == word) {
                return true;
            }
        }
        *why = "\"" + text + "\" is not a boolean (true or false)";
        return false;
    }
    const bool isSigned = basic == "int32" || basic == "int64";
    const bool digits = !text.empty() &&
                        text.find_first_not_of("0123456789", isSigned && text[0] == '-' ? 1 : 0) ==
                            std::string::npos &&
                        text != "-";
    if (!digits) {
        *why = "\"" + text + "\" is not a whole number";
        return false;
    }
    errno = 0;
    bool inRange = true;
    if (isSigned) {
        const long long value = strtoll(text.c_str(), nullptr, 10);
        inRange =
            errno == 0 && (basic == "int64" || (value >= std::numeric_limits<int32_t>::min() &&
                                                value <= std::numeric_limits<int32_t>::max()));
    } else {
        const unsigned long long value = strtoull(text.c_str(), nullptr, 10);
        inRange =
            errno == 0 && (basic == "uint64" || value <= std::numeric_limits<uint32_t>::max());
    }
    if (!inRange) {
        *why = text + " is outside the range of " + basic;
        return false;
    }
    return true;
}

json UntypedJson(rk_elem_t* elem) {
    json object = json::object();
    for (rk_elem_t* child : Children(elem)) {
        const std::string name = rk_elem_get_name(child);
        json value = rk_elem_child_count(child) == 0 ? json(Text(child)) : UntypedJson(child);
        if (!object.contains(name)) {
            object[name] = value;
        } else {
            if (!object[name].is_array()) {
                object[name] = json::array({object[name]});
            }
            object[name].push_back(value);
        }
    }
    return object;
}

bool AddUntypedJson(const json& object, rk_elem_t* parent, const std::string& path,
                    std::string* error) {
    if (!object.is_object()) {
        *error = (path.empty() ? "the input" : path) + " must be a JSON object";
        return false;
    }
    for (const auto& [name, value] : object.items()) {
        const std::string where = path.empty() ? name : path + "/" + name;
        const json items = value.is_array() ? value : json::array({value});
        for (const json& item : items) {
            std::string text;
            if (item.is_object()) {
                rk_elem_t* child = AddChild(parent, name);
                if (child == nullptr || !AddUntypedJson(item, child, where, error)) {
                    if (error->empty()) {
                        *error = "cannot add " + where + " to the request";
                    }
                    return false;
                }
            } else if (ScalarText(item, &text)) {
                if (rk_child_add_string(parent, name.c_str(), text.c_str()) == nullptr) {
                    *error = "cannot add " + where + " to the request (not an element name?)";
                    return false;
                }
            } else if (!item.is_null()) {
                *error = where + ": arrays of arrays have no element form";
                return false;
            }
        }
    }
    return true;
}

std::string Decoded(const std::string& text) {
    static const struct {
        const char* entity;
        char c;
    } kEntities[] = {
        {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}, {"&amp;", '&'}};
    std::string out;
    for (size_t i = 0; i < text.size();) {
        bool replaced = false;
        for (const auto& e : kEntities) {
            const size_t n = strlen(e.entity);
            if (text.compare(i, n, e.entity) == 0) {
                out += e.c;
                i += n;
                replaced = true;
                break;
            }
        }
        if (!replaced) {
            out += text[i++];
        }
    }
    return out;
}

}  // namespace teza_call
