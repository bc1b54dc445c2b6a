// TezaFieldTypeFactory: implemented by generated code, one object per namespace, living as
// long as the program. It creates, copies and describes the records of its namespace by type
// name. Factories are called from any thread at once and must be safe for that.
#ifndef TEZA_FIELD_TYPE_FACTORY_H_
#define TEZA_FIELD_TYPE_FACTORY_H_

#include <string>
#include <vector>

#include "TezaUtil.h"

class TezaFieldType;

class TEZA_API TezaFieldTypeFactory {
  public:
    // A new empty record of the named type (made with new), or null for an unknown type.
    virtual TezaFieldType* getInstance(const std::string& category,
                                       const std::string& typeName) const = 0;
    // An array of `count` new empty records (made with new[]), or null for an unknown type.
    virtual TezaFieldType* getInstances(int count, const std::string& category,
                                        const std::string& typeName) const = 0;
    // A new record, a deep copy of `source`.
    virtual TezaFieldType* copyInstance(const std::string& typeName,
                                        const TezaFieldType& source) const = 0;
    // An array (new[]) of `count` deep copies of the records at `source`.
    virtual TezaFieldType* copyInstances(const std::string& typeName, int count,
                                         const TezaFieldType*& source) const = 0;
    // An array (new[]) of deep copies of the records the vector points to, in order.
    virtual TezaFieldType* copyInstances(const std::string& typeName,
                                         std::vector<TezaFieldType*>& source) const = 0;
    // The chain of type names that defines the named typedef, ending with its lowest-level
    // type; empty for a type that is not a nested typedef.
    virtual std::vector<std::string> getNestedTypedefHierarchy(
        const std::string& typeName) const = 0;

    virtual ~TezaFieldTypeFactory() {}
};

#endif  // TEZA_FIELD_TYPE_FACTORY_H_
