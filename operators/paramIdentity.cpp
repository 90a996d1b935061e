#include "operators/paramIdentity.h"

#include "model/hash.h"

namespace corvelle {

ParamIdentity identityOf(const Operator& op, const char* param, const EvalContext& context,
                         const GuidesPtr& guides) {
    if (const Operator::DrivenField* driven = op.drivenField(param))
        return {hashCombine(mix64(1), driven->scale), driven->field};
    const ParamValue& value = op.value(param);
    std::uint64_t hash = paramHash(value);
    if (const MapSource* map = std::get_if<MapSource>(&value))
        hash = hashCombine(hash, mapReadsHash(*map, context.data(), guides));
    return {hash, nullptr};
}

}  // namespace corvelle
