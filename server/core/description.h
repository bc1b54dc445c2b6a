// The description a server publishes of the APIs it serves: namespaces with their typedefs,
// types (fields in order, with their flags) and families of APIs, read from descriptions that
// teza-gen writes from schemas (teza-gen --describe-out). It answers the two introspection
// APIs, system-api-list and system-api-describe; docs/wire-format.md documents both.
//
// Set-up (Add) happens before the first call; afterwards the members are read-only and may be
// called from any number of threads at once.
#ifndef TEZAD_CORE_DESCRIPTION_H_
#define TEZAD_CORE_DESCRIPTION_H_

#include <set>
#include <string>
#include <vector>

#include "elements.h"

// The descriptions made by teza-gen at build time: of the built-in APIs (server/builtin.teza)
// and of the demo service (demo/demo.teza).
extern const char tezad_builtin_description[];
extern const char tezad_demo_description[];

namespace tezad {

// The layout version of descriptions (<description-version>) that this server reads and
// writes.
extern const int kDescriptionVersion;
// The namespace of the built-in APIs of every tezad.
extern const char kBuiltinNamespace[];

// system-api-describe: no API, type or namespace of that name.
const int kErrNotDescribed = 15007;

class Description {
  public:
    struct Field {
        std::string name;
        std::string type;    // as declared: a basic type, a type or a typedef
        std::string basic;   // the basic type it comes to, or empty
        std::string record;  // the type it comes to, or empty
        bool array = false;
        bool optional = false;
        bool encrypted = false;
        bool nonEmpty = false;
        bool validate = false;
        bool nestedTypedef = false;
    };
    struct Type {
        std::string name;
        std::vector<Field> fields;
    };
    struct Typedef {
        std::string name;
        std::string target;
        std::vector<std::string> chain;
        std::string basic;
        std::string record;
    };
    struct Api {
        std::string name;
        std::string input;  // empty: none
        std::string output;
    };
    struct Family {
        std::string name;
        std::string id;
        std::vector<Api> apis;
    };
    struct Namespace {
        std::string name;
        std::vector<Typedef> typedefs;
        std::vector<Type> types;
        std::vector<Family> families;
    };

    // Adds the namespaces of a description document (`origin` names it in messages). False,
    // with "<origin>: <what>" in `error` and nothing added, when the document cannot be read,
    // a reference in it leads nowhere, or a namespace or API is described already.
    bool Add(const std::string& xml, const std::string& origin, std::string* error);

    const std::vector<Namespace>& namespaces() const { return _namespaces; }
    bool Empty() const { return _namespaces.empty(); }

    // A passed result of system-api-list: every API with its namespace, family and types.
    ElemPtr List() const;
    // A passed result of system-api-describe: for the request's <api> or <type> (within
    // <namespace> when given) the part of the description it needs, for <namespace> alone
    // that namespace, without arguments everything. Throws ApiError when nothing has the name.
    ElemPtr Describe(const Args& args) const;

  private:
    const Namespace* FindNamespace(const std::string& name) const;
    // Adds `type` and every type and typedef that its fields need to the sets.
    void Needs(const Namespace& ns, const std::string& type, std::set<std::string>* types,
               std::set<std::string>* typedefs) const;
    void NeedsTypeName(const Namespace& ns, const std::string& name, std::set<std::string>* types,
                       std::set<std::string>* typedefs) const;

    std::vector<Namespace> _namespaces;
};

}  // namespace tezad

#endif  // TEZAD_CORE_DESCRIPTION_H_
