// What teza-call knows of one API from the server's own description (system-api-describe,
// docs/wire-format.md): its input and output types with their fields, and the typedefs. It
// checks arguments before they are sent, turns JSON into a request and a result into typed
// JSON, and prints the API as a tree or as schema text.
#ifndef TEZA_CALL_API_DESCRIPTION_H_
#define TEZA_CALL_API_DESCRIPTION_H_

#include <stdio.h>

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "rk.h"

namespace teza_call {

struct FieldInfo {
    std::string name;
    std::string type;    // as declared
    std::string basic;   // the basic type it comes to, or empty
    std::string record;  // the type it comes to, or empty
    bool array = false;
    bool optional = false;
    bool encrypted = false;
    bool nonEmpty = false;
    bool validate = false;
    bool nestedTypedef = false;
};

struct TypeInfo {
    std::string name;
    std::vector<FieldInfo> fields;
    const FieldInfo* Field(const std::string& name) const;
};

struct TypedefInfo {
    std::string name;
    std::string target;
    std::vector<std::string> chain;
};

// How a field is laid out on the wire: under the field's element, the elements `levels`,
// then (arrays) one element per item, named `item` in a request, holding `itemLevels` and
// then the item's value or fields.
struct Shape {
    std::vector<std::string> levels;
    std::string item;
    std::vector<std::string> itemLevels;
};

class ApiDescription {
  public:
    // Reads a passed system-api-describe result for `api`. False, with what is wrong in
    // `error`, when the result does not describe it.
    bool Read(rk_elem_t* result, const std::string& api, std::string* error);

    const std::string& api() const { return _api; }
    const TypeInfo* input() const { return Type(_input); }
    const TypeInfo* output() const { return Type(_output); }
    const TypeInfo* Type(const std::string& name) const;

    Shape RequestShape(const FieldInfo& field) const;
    Shape ResultShape(const FieldInfo& field) const;

    // Checks NAME=VALUE, NAME a path of elements from the request (indices "[N]" allowed), and
    // says whether the value is to be encrypted. False with the reason in `error`.
    bool CheckArgument(const std::string& path, const std::string& value, bool* encrypt,
                       std::string* error) const;

    // Adds the members of a JSON object to `request` as fields of the input type. False, with
    // the member's path and what is wrong, when it does not fit.
    bool AddJson(const nlohmann::ordered_json& object, rk_elem_t* request,
                 std::string* error) const;
    // The fields of a passed result as JSON typed by the output type. A value that does not
    // fit its field stays text, with a line on `warnings` naming the field and why.
    nlohmann::ordered_json ResultJson(rk_elem_t* result, FILE* warnings) const;

    // The API's input and output as an indented tree of fields with their types and flags.
    std::string Tree() const;
    // The API, its types and typedefs as schema text (docs/schema.md).
    std::string Schema() const;

  private:
    bool AddRecord(const TypeInfo& type, const nlohmann::ordered_json& object, rk_elem_t* parent,
                   const std::string& path, std::string* error) const;
    nlohmann::ordered_json RecordJson(const TypeInfo& type, rk_elem_t* elem,
                                      const std::string& path, FILE* warnings) const;
    nlohmann::ordered_json BasicJson(const FieldInfo& field, rk_elem_t* parent, rk_elem_t* elem,
                                     const std::string& path, FILE* warnings) const;
    void TreeOf(const TypeInfo& type, int depth, std::vector<std::string>* open,
                std::string* out) const;

    std::string _api;
    std::string _namespace;
    std::string _family;
    std::string _familyId;
    std::string _input;
    std::string _output;
    std::vector<TypeInfo> _types;
    std::vector<TypedefInfo> _typedefs;
};

// The names among `names` close to `name` (edit distance), closest first.
std::vector<std::string> CloseNames(const std::string& name, const std::vector<std::string>& names);

// Checks a text against a basic type. False, with why, when it cannot be one.
bool FitsBasic(const std::string& basic, const std::string& text, std::string* why);

// Any element tree as JSON, without a description: texts as strings, elements with children
// as objects, repeated names as arrays.
nlohmann::ordered_json UntypedJson(rk_elem_t* elem);
// A JSON object as elements under `parent`, without a description: objects as elements with
// children, arrays as repeated elements, scalars as texts.
bool AddUntypedJson(const nlohmann::ordered_json& object, rk_elem_t* parent,
                    const std::string& path, std::string* error);

// Decodes the five named entities of a text read from the wire.
std::string Decoded(const std::string& text);

}  // namespace teza_call

#endif  // TEZA_CALL_API_DESCRIPTION_H_
