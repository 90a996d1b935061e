#include "operators/nodeFactories.h"
#include "operators/strandOperator.h"

namespace corvelle {

namespace {

/// The graph's end: passes its strands on as they are, with what changed in them.
class Output final : public StrandOperator {
public:
    std::string type() const override { return "Output"; }
    std::string category() const override { return "utility"; }
    std::string description() const override { return "What the groom shows and renders."; }

protected:
    std::unique_ptr<StrandWork> prepare(const EvalContext&, const NodeInputs&, const StrandSet&) override {
        return nullptr;
    }
};

}  // namespace

OperatorPtr makeOutput() { return std::make_unique<Output>(); }

}  // namespace corvelle
