// TezaNamespaceFactory: the process-wide registry from namespace name to the generated
// factory of that namespace. Static members only; the map is guarded by a mutex held for the
// lookup or insertion alone, so factory calls run outside it. Factories are not owned.
#ifndef TEZA_NAMESPACE_FACTORY_H_
#define TEZA_NAMESPACE_FACTORY_H_

#include <string>
#include <vector>

#include "TezaFieldTypeFactory.h"
#include "TezaUtil.h"

class TezaFieldType;

class TEZA_API TezaNamespaceFactory {
  public:
    TezaNamespaceFactory() = delete;

    // Registers (or replaces) the factory of `ns`; a null factory behaves like none.
    static void registerTypeFactory(const std::string& ns, const TezaFieldTypeFactory* factory);
    // The factory of `ns` (exact, case-sensitive name), or null.
    static const TezaFieldTypeFactory* getTypeFactory(const std::string& ns);

    // Each forwards to the factory of `ns`; null (or an empty vector) when there is none.
    static TezaFieldType* getInstance(const std::string& ns, const std::string& category,
                                      const std::string& typeName);
    static TezaFieldType* getInstances(const std::string& ns, int count,
                                       const std::string& category, const std::string& typeName);
    static TezaFieldType* copyInstance(const std::string& ns, const std::string& typeName,
                                       const TezaFieldType& source);
    static TezaFieldType* copyInstances(const std::string& ns, const std::string& typeName,
                                        int count, const TezaFieldType*& source);
    static TezaFieldType* copyInstances(const std::string& ns, const std::string& typeName,
                                        std::vector<TezaFieldType*>& source);
    static std::vector<std::string> getNestedTypedefHierarchy(const std::string& ns,
                                                              const std::string& typeName);

    // Defined by generated code: registers the factories of all generated namespaces.
    // TezaWrapper::init calls it once the client library has started.
    static void registerDefaultTypeFactory();
};

#endif  // TEZA_NAMESPACE_FACTORY_H_
