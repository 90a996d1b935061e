#include "graph/graphError.h"
#include "graph/operator.h"

namespace corvelle {

OperatorRegistry& OperatorRegistry::instance() {
    static OperatorRegistry registry;
    return registry;
}

void OperatorRegistry::add(const std::string& type, Factory factory) {
    factories_[type] = std::move(factory);
}

OperatorPtr OperatorRegistry::create(const std::string& type) const {
    const auto found = factories_.find(type);
    if (found == factories_.end()) throw GraphError("unknown operator type '" + type + "'");
    return found->second();
}

bool OperatorRegistry::has(const std::string& type) const { return factories_.contains(type); }

std::vector<std::string> OperatorRegistry::types() const {
    std::vector<std::string> names;
    for (const auto& [type, factory] : factories_) names.push_back(type);
    return names;
}

}  // namespace corvelle
