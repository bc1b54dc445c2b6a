#include "description.h"

#include <algorithm>
#include <map>
#include <utility>

namespace tezad {

const int kDescriptionVersion = 1;
const char kBuiltinNamespace[] = "teza-system";

namespace {

// A description that cannot be read: the message says where and what.
struct Unreadable {
    std::string what;
};

rk_elem_t* Child(rk_elem_t* elem, const char* name) {
    return elem == nullptr ? nullptr : rk_elem_child(elem, name);
}

std::string Text(rk_elem_t* elem, const char* name, const std::string& where) {
    rk_elem_t* child = Child(elem, name);
    if (child == nullptr) {
        throw Unreadable{where + ": <" + name + "> is missing"};
    }
    const char* content = rk_elem_get_content(child);
    return Decode(content != nullptr ? content : "");
}

std::string OptionalText(rk_elem_t* elem, const char* name) {
    rk_elem_t* child = Child(elem, name);
    const char* content = child != nullptr ? rk_elem_get_content(child) : nullptr;
    return content != nullptr ? Decode(content) : "";
}

bool Flag(rk_elem_t* elem, const char* name, const std::string& where) {
    const std::string text = Text(elem, name, where);
    if (text != "true" && text != "false") {
        throw Unreadable{where + ": <" + name + "> is \"" + text + "\", not true or false"};
    }
    return text == "true";
}

// The items of the wrapper `wrapper` of `elem`, named `item`.
std::vector<rk_elem_t*> Items(rk_elem_t* elem, const char* wrapper, const char* item) {
    std::vector<rk_elem_t*> items;
    rk_iterator_t it = rk_child_iterator(Child(elem, wrapper));
    while (rk_elem_t* child = rk_iterator_next(&it)) {
        if (std::string(rk_elem_get_name(child)) == item) {
            items.push_back(child);
        }
    }
    return items;
}

bool IsBasic(const std::string& name) {
    static const char* const kBasic[] = {"string", "int32", "uint32", "int64", "uint64", "bool"};
    return std::find(std::begin(kBasic), std::end(kBasic), name) != std::end(kBasic);
}

Description::Namespace ReadNamespace(rk_elem_t* elem) {
    Description::Namespace ns;
    ns.name = Text(elem, "name", "a namespace");
    const std::string where = "namespace \"" + ns.name + "\"";
    for (rk_elem_t* t : Items(elem, "typedefs", "typedef")) {
        Description::Typedef typedef_;
        typedef_.name = Text(t, "name", where);
        typedef_.target = Text(t, "target", where);
        rk_iterator_t it = rk_child_iterator(Child(t, "chain"));
        while (rk_elem_t* name = rk_iterator_next(&it)) {
            const char* content = rk_elem_get_content(name);
            typedef_.chain.push_back(Decode(content != nullptr ? content : ""));
        }
        typedef_.basic = OptionalText(t, "basic");
        typedef_.record = OptionalText(t, "record");
        ns.typedefs.push_back(std::move(typedef_));
    }
    for (rk_elem_t* t : Items(elem, "types", "type")) {
        Description::Type type;
        type.name = Text(t, "name", where);
        const std::string fieldWhere = where + ", type \"" + type.name + "\"";
        for (rk_elem_t* f : Items(t, "fields", "field")) {
            Description::Field field;
            field.name = Text(f, "name", fieldWhere);
            field.type = Text(f, "type", fieldWhere);
            field.basic = OptionalText(f, "basic");
            field.record = OptionalText(f, "record");
            field.array = Flag(f, "array", fieldWhere);
            field.optional = Flag(f, "optional", fieldWhere);
            field.encrypted = Flag(f, "encrypted", fieldWhere);
            field.nonEmpty = Flag(f, "non-empty", fieldWhere);
            field.validate = Flag(f, "validate", fieldWhere);
            field.nestedTypedef = Flag(f, "nested-typedef", fieldWhere);
            type.fields.push_back(std::move(field));
        }
        ns.types.push_back(std::move(type));
    }
    for (rk_elem_t* f : Items(elem, "families", "family")) {
        Description::Family family;
        family.name = Text(f, "name", where);
        family.id = Text(f, "id", where);
        for (rk_elem_t* a : Items(f, "apis", "api")) {
            Description::Api api;
            api.name = Text(a, "name", where);
            api.input = OptionalText(a, "input");
            api.output = OptionalText(a, "output");
            family.apis.push_back(std::move(api));
        }
        ns.families.push_back(std::move(family));
    }
    return ns;
}

// Every reference of a namespace must lead to something it declares.
void CheckNamespace(const Description::Namespace& ns) {
    std::set<std::string> types;
    std::set<std::string> typedefs;
    for (const auto& type : ns.types) {
        types.insert(type.name);
    }
    for (const auto& typedef_ : ns.typedefs) {
        typedefs.insert(typedef_.name);
    }
    const std::string where = "namespace \"" + ns.name + "\"";
    auto known = [&](const std::string& name) {
        return IsBasic(name) || types.count(name) != 0 || typedefs.count(name) != 0;
    };
    for (const auto& typedef_ : ns.typedefs) {
        if (!known(typedef_.target)) {
            throw Unreadable{where + ": typedef \"" + typedef_.name + "\" stands for \"" +
                             typedef_.target + "\", which is not described"};
        }
    }
    for (const auto& type : ns.types) {
        for (const auto& field : type.fields) {
            if (!known(field.type) || (field.basic.empty() == field.record.empty()) ||
                (!field.record.empty() && types.count(field.record) == 0) ||
                (!field.basic.empty() && !IsBasic(field.basic))) {
                throw Unreadable{where + ": field \"" + field.name + "\" of type \"" + type.name +
                                 "\" has a type that is not described"};
            }
        }
    }
    for (const auto& family : ns.families) {
        for (const auto& api : family.apis) {
            for (const std::string* end : {&api.input, &api.output}) {
                if (!end->empty() && types.count(*end) == 0) {
                    throw Unreadable{where + ": API \"" + api.name + "\" names the type \"" + *end +
                                     "\", which is not described"};
                }
            }
        }
    }
}

void WriteFlag(rk_elem_t* parent, const char* name, bool on) {
    AddText(parent, name, on ? "true" : "false");
}

void WriteApi(rk_elem_t* parent, const Description::Api& api) {
    rk_elem_t* elem = AddElem(parent, "api");
    AddText(elem, "name", api.name);
    if (!api.input.empty()) {
        AddText(elem, "input", api.input);
    }
    if (!api.output.empty()) {
        AddText(elem, "output", api.output);
    }
}

// Writes the part of `ns` that the sets name, and the families given, in the namespace's
// order.
void WriteNamespace(rk_elem_t* parent, const Description::Namespace& ns,
                    const std::set<std::string>* types, const std::set<std::string>* typedefs,
                    const std::vector<Description::Family>& families) {
    rk_elem_t* elem = AddElem(parent, "namespace");
    AddText(elem, "name", ns.name);
    rk_elem_t* typedefList = AddElem(elem, "typedefs");
    for (const auto& typedef_ : ns.typedefs) {
        if (typedefs != nullptr && typedefs->count(typedef_.name) == 0) {
            continue;
        }
        rk_elem_t* t = AddElem(typedefList, "typedef");
        AddText(t, "name", typedef_.name);
        AddText(t, "target", typedef_.target);
        rk_elem_t* chain = AddElem(t, "chain");
        for (const std::string& name : typedef_.chain) {
            AddText(chain, "name", name);
        }
        if (!typedef_.record.empty()) {
            AddText(t, "record", typedef_.record);
        } else {
            AddText(t, "basic", typedef_.basic);
        }
    }
    rk_elem_t* typeList = AddElem(elem, "types");
    for (const auto& type : ns.types) {
        if (types != nullptr && types->count(type.name) == 0) {
            continue;
        }
        rk_elem_t* t = AddElem(typeList, "type");
        AddText(t, "name", type.name);
        rk_elem_t* fields = AddElem(t, "fields");
        for (const auto& field : type.fields) {
            rk_elem_t* f = AddElem(fields, "field");
            AddText(f, "name", field.name);
            AddText(f, "type", field.type);
            if (!field.record.empty()) {
                AddText(f, "record", field.record);
            } else {
                AddText(f, "basic", field.basic);
            }
            WriteFlag(f, "array", field.array);
            WriteFlag(f, "optional", field.optional);
            WriteFlag(f, "encrypted", field.encrypted);
            WriteFlag(f, "non-empty", field.nonEmpty);
            WriteFlag(f, "validate", field.validate);
            WriteFlag(f, "nested-typedef", field.nestedTypedef);
        }
    }
    rk_elem_t* familyList = AddElem(elem, "families");
    for (const auto& family : families) {
        rk_elem_t* f = AddElem(familyList, "family");
        AddText(f, "name", family.name);
        AddText(f, "id", family.id);
        rk_elem_t* apis = AddElem(f, "apis");
        for (const auto& api : family.apis) {
            WriteApi(apis, api);
        }
    }
}

ElemPtr NewDescribed(rk_elem_t** namespaces) {
    ElemPtr result = NewPassed();
    AddText(result.get(), "description-version", std::to_string(kDescriptionVersion));
    *namespaces = AddElem(result.get(), "namespaces");
    return result;
}

}  // namespace

bool Description::Add(const std::string& xml, const std::string& origin, std::string* error) {
    char parseError[256] = "";
    ElemPtr root(
        rk_elem_parse(xml.data(), xml.size(), parseError, static_cast<int>(sizeof parseError)));
    if (root == nullptr) {
        *error = origin + ": not a well-formed XML description: " + parseError;
        return false;
    }
    try {
        if (std::string(rk_elem_get_name(root.get())) != "teza-description") {
            throw Unreadable{std::string("the root element is <") + rk_elem_get_name(root.get()) +
                             ">, not <teza-description>"};
        }
        const std::string version = Text(root.get(), "description-version", "the description");
        if (version != std::to_string(kDescriptionVersion)) {
            throw Unreadable{"the description has version \"" + version +
                             "\"; this server reads version " +
                             std::to_string(kDescriptionVersion)};
        }
        std::vector<Namespace> added;
        std::set<std::string> apis;
        for (const auto& ns : _namespaces) {
            for (const auto& family : ns.families) {
                for (const auto& api : family.apis) {
                    apis.insert(api.name);
                }
            }
        }
        for (rk_elem_t* elem : Items(root.get(), "namespaces", "namespace")) {
            Namespace ns = ReadNamespace(elem);
            CheckNamespace(ns);
            bool seen = FindNamespace(ns.name) != nullptr;
            for (const auto& other : added) {
                seen = seen || other.name == ns.name;
            }
            if (seen) {
                throw Unreadable{"namespace \"" + ns.name + "\" is described already"};
            }
            for (const auto& family : ns.families) {
                for (const auto& api : family.apis) {
                    if (!apis.insert(api.name).second) {
                        throw Unreadable{"API \"" + api.name + "\" is described already"};
                    }
                }
            }
            added.push_back(std::move(ns));
        }
        for (auto& ns : added) {
            _namespaces.push_back(std::move(ns));
        }
    } catch (const Unreadable& e) {
        *error = origin + ": " + e.what;
        return false;
    }
    return true;
}

const Description::Namespace* Description::FindNamespace(const std::string& name) const {
    for (const auto& ns : _namespaces) {
        if (ns.name == name) {
            return &ns;
        }
    }
    return nullptr;
}

ElemPtr Description::List() const {
    ElemPtr result = NewPassed();
    AddText(result.get(), "description-version", std::to_string(kDescriptionVersion));
    rk_elem_t* apis = AddElem(result.get(), "apis");
    for (const auto& ns : _namespaces) {
        for (const auto& family : ns.families) {
            for (const auto& api : family.apis) {
                rk_elem_t* elem = AddElem(apis, "api");
                AddText(elem, "name", api.name);
                AddText(elem, "namespace", ns.name);
                AddText(elem, "family", family.name);
                if (!api.input.empty()) {
                    AddText(elem, "input", api.input);
                }
                if (!api.output.empty()) {
                    AddText(elem, "output", api.output);
                }
            }
        }
    }
    return result;
}

void Description::NeedsTypeName(const Namespace& ns, const std::string& name,
                                std::set<std::string>* types,
                                std::set<std::string>* typedefs) const {
    for (const auto& typedef_ : ns.typedefs) {
        if (typedef_.name == name) {
            if (typedefs->insert(name).second) {
                NeedsTypeName(ns, typedef_.target, types, typedefs);
            }
            return;
        }
    }
    for (const auto& type : ns.types) {
        if (type.name == name) {
            Needs(ns, name, types, typedefs);
            return;
        }
    }
}

void Description::Needs(const Namespace& ns, const std::string& type, std::set<std::string>* types,
                        std::set<std::string>* typedefs) const {
    if (!types->insert(type).second) {
        return;
    }
    for (const auto& t : ns.types) {
        if (t.name == type) {
            for (const auto& field : t.fields) {
                NeedsTypeName(ns, field.type, types, typedefs);
            }
        }
    }
}

ElemPtr Description::Describe(const Args& args) const {
    const std::optional<std::string> api = args.Text("api");
    const std::optional<std::string> type = args.Text("type");
    const std::optional<std::string> nsName = args.Text("namespace");
    if (api && type) {
        throw ApiError{kErrNotDescribed, "name an <api> or a <type>, not both"};
    }
    const Namespace* only = nullptr;
    if (nsName) {
        only = FindNamespace(*nsName);
        if (only == nullptr) {
            throw ApiError{kErrNotDescribed, "no namespace \"" + *nsName + "\" is described"};
        }
    }
    rk_elem_t* namespaces = nullptr;
    ElemPtr result = NewDescribed(&namespaces);
    if (!api && !type) {
        for (const auto& ns : _namespaces) {
            if (only == nullptr || only == &ns) {
                WriteNamespace(namespaces, ns, nullptr, nullptr, ns.families);
            }
        }
        return result;
    }
    for (const auto& ns : _namespaces) {
        if (only != nullptr && only != &ns) {
            continue;
        }
        std::set<std::string> types;
        std::set<std::string> typedefs;
        if (api) {
            for (const auto& family : ns.families) {
                for (const auto& a : family.apis) {
                    if (a.name != *api) {
                        continue;
                    }
                    for (const std::string* end : {&a.input, &a.output}) {
                        if (!end->empty()) {
                            Needs(ns, *end, &types, &typedefs);
                        }
                    }
                    Family one{family.name, family.id, {a}};
                    WriteNamespace(namespaces, ns, &types, &typedefs, {one});
                    return result;
                }
            }
        } else {
            for (const auto& t : ns.types) {
                if (t.name == *type) {
                    Needs(ns, *type, &types, &typedefs);
                    WriteNamespace(namespaces, ns, &types, &typedefs, {});
                    return result;
                }
            }
        }
    }
    throw ApiError{kErrNotDescribed, std::string("no ") + (api ? "API" : "type") + " \"" +
                                         (api ? *api : *type) + "\" is described" +
                                         (nsName ? " in namespace \"" + *nsName + "\"" : "")};
}

}  // namespace tezad
