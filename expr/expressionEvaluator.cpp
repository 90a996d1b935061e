#include "expr/expressionEvaluator.h"

#include <algorithm>

#include "expr/expressionArithmetic.h"
#include "expr/expressionFunctions.h"
#include "expr/lanes.h"

namespace corvelle {

namespace {

using Opcode = ExpressionOpcode;

constexpr std::size_t kSmallStack = 256;

/// A guide layer read from a channel is a gray map: its value on r, g and b, and 1 on a.
float layerComponent(float value, MapComponent component) {
    return component == MapComponent::A ? 1.0f : value;
}

// ---- one record ----

float readChannel(const BoundChannel& channel, std::uint32_t strand, std::uint64_t point) {
    if (!channel.values) return 0.0f;
    if (!channel.perPoint) return channel.values[strand];
    return point == kNoPoint ? 0.0f : channel.values[point];
}

void pushMap(const ExpressionOp& op, const StrandRecord& record, float*& top) {
    const BoundMap& bound = record.tables->maps[op.index];
    if (bound.layer.values) {
        const float value = readChannel(bound.layer, record.strand, record.point);
        if (op.b) {
            *top++ = value;
            *top++ = value;
            *top++ = value;
        } else {
            *top++ = layerComponent(value, MapComponent(op.a));
        }
        return;
    }
    const StrandRoot root = record.tables->roots[record.strand];
    if (op.b) {
        const Color4f color = bound.map->colorAt(root, record.rootPosition);
        *top++ = color.r;
        *top++ = color.g;
        *top++ = color.b;
    } else {
        *top++ = bound.map->at(root, record.rootPosition, MapComponent(op.a));
    }
}

void run(std::span<const ExpressionOp> operations, const std::vector<Ramp>& curves,
         const StrandRecord& record, float* stack) {
    const std::span<const ExpressionFunction> functions = expressionFunctions();
    float* top = stack;  // one past the last value
    for (const ExpressionOp& op : operations) {
        switch (op.opcode) {
            case Opcode::Const:
                *top++ = op.value;
                break;
            case Opcode::Var:
                *top++ = record.variables[op.a];
                break;
            case Opcode::Channel:
                *top++ =
                    readChannel(record.tables->channels[op.index], record.strand, record.point);
                break;
            case Opcode::Neg:
                top[-1] = -top[-1];
                break;
            case Opcode::Binary:
                top[-2] = forBinary(ExpressionBinary(op.a), [&]<ExpressionBinary Operation>() {
                    return binaryResult<Operation>(top[-2], top[-1]);
                });
                --top;
                break;
            case Opcode::Call:
            case Opcode::CallVector:
                top -= op.b;
                functions[op.a].single(top, op.b,
                                       {record.id, curves.empty() ? nullptr : &curves[op.index]});
                top += op.opcode == Opcode::Call ? 1 : 3;
                break;
            case Opcode::Select:
                top[-3] = top[-3] != 0.0f ? top[-2] : top[-1];
                top -= 2;
                break;
            case Opcode::SelectVector: {
                const float* from = top[-7] != 0.0f ? top - 6 : top - 3;
                std::copy_n(from, 3, top - 7);
                top -= 4;
                break;
            }
            case Opcode::NegVector:
                for (int k = 1; k <= 3; ++k) top[-k] = -top[-k];
                break;
            case Opcode::BinaryVector: {
                const int leftSize = op.b & 1 ? 3 : 1, rightSize = op.b & 2 ? 3 : 1;
                const float* right = top - rightSize;
                float* left = top - rightSize - leftSize;
                std::array<float, 3> result;
                for (int k = 0; k < 3; ++k)
                    result[std::size_t(k)] =
                        forBinary(ExpressionBinary(op.a), [&]<ExpressionBinary Operation>() {
                            return binaryResult<Operation>(left[leftSize == 3 ? k : 0],
                                                           right[rightSize == 3 ? k : 0]);
                        });
                std::copy_n(result.begin(), 3, left);
                top = left + 3;
                break;
            }
            case Opcode::Component:
                top[-3] = top[-3 + op.a];
                top -= 2;
                break;
            case Opcode::Map:
                pushMap(op, record, top);
                break;
        }
    }
}

/// Results on a stack local to the call: small when that is enough, left uninitialised.
template <std::size_t Slots>
Vec3f runOnLocalStack(std::span<const ExpressionOp> operations, const std::vector<Ramp>& curves,
                      const StrandRecord& record, bool vector) {
    std::array<float, Slots> stack;
    run(operations, curves, record, stack.data());
    Vec3f result;
    result.x = finiteOrZero(stack[0]);
    if (vector) {
        result.y = finiteOrZero(stack[1]);
        result.z = finiteOrZero(stack[2]);
    }
    return result;
}

Vec3f runProgram(const ExpressionProgram& program, const StrandRecord& record) {
    return program.stackDepth <= kSmallStack
               ? runOnLocalStack<kSmallStack>(program.operations, program.curves, record,
                                              program.vector)
               : runOnLocalStack<kMaxExpressionStack>(program.operations, program.curves, record,
                                                      program.vector);
}

// ---- many lanes ----

/// Rows of the stack are `stride` floats apart; a row holds one value of every lane.
class BatchRun {
public:
    BatchRun(const ExpressionProgram& program, const ExpressionBatch& batch, float* stack,
             std::size_t stride)
        : program_(program),
          batch_(batch),
          channels_(batch.tables->channels),
          stride_(stride),
          lanes_(batch.lanes),
          top_(stack) {}

    void run() {
        const std::span<const ExpressionOp> operations = program_.operations;
        for (std::size_t k = 0; k < operations.size(); ++k) {
            const ExpressionOp& op = operations[k];
            // An operand that is only read for the next operator need not be copied to the stack.
            if (k + 1 < operations.size() && operations[k + 1].opcode == Opcode::Binary) {
                if (op.opcode == Opcode::Const) {
                    binaryWithConstant(operations[++k], op.value);
                    continue;
                }
                const float* operand = nullptr;
                if (op.opcode == Opcode::Var) operand = batch_.variables[op.a];
                if (op.opcode == Opcode::Channel) operand = rowOf(channels_[op.index]);
                if (operand) {
                    binary(operations[++k], row(1), operand);
                    continue;
                }
            }
            step(op);
        }
    }

private:
    /// The row `fromTop` rows below the end of the stack.
    float* row(std::size_t fromTop) const { return top_ - fromTop * stride_; }

    void step(const ExpressionOp& op) {
        switch (op.opcode) {
            case Opcode::Const:
                std::fill_n(top_, lanes_, op.value);
                push();
                break;
            case Opcode::Var:
                std::copy_n(batch_.variables[op.a], lanes_, top_);
                push();
                break;
            case Opcode::Channel:
                fillChannel(channels_[op.index], top_);
                push();
                break;
            case Opcode::Neg:
                negate(row(1));
                break;
            case Opcode::Binary:
                binary(op, row(2), row(1));
                pop(1);
                break;
            case Opcode::Call:
            case Opcode::CallVector: {
                pop(op.b);
                const ExpressionBatchCallContext context{
                    batch_.ids, program_.curves.empty() ? nullptr : &program_.curves[op.index]};
                expressionFunctions()[op.a].batch(top_, stride_, op.b, lanes_, context);
                push(op.opcode == Opcode::Call ? 1 : 3);
                break;
            }
            case Opcode::Select:
                select(row(3), row(2), row(1), row(3));
                pop(2);
                break;
            case Opcode::SelectVector:
                selectVector();
                break;
            case Opcode::NegVector:
                for (std::size_t k = 1; k <= 3; ++k) negate(row(k));
                break;
            case Opcode::BinaryVector:
                binaryVector(op);
                break;
            case Opcode::Component:
                if (op.a != 0) std::copy_n(row(3 - op.a), lanes_, row(3));
                pop(2);
                break;
            case Opcode::Map:
                fillMap(op);
                break;
        }
    }

    void push(std::size_t rows = 1) { top_ += rows * stride_; }
    void pop(std::size_t rows) { top_ -= rows * stride_; }

    void negate(float* values) const {
        for (std::size_t i = 0; i < lanes_; ++i) values[i] = -values[i];
    }

    void binary(const ExpressionOp& op, float* left, const float* right) const {
        forBinary(ExpressionBinary(op.a), [&]<ExpressionBinary Operation>() {
            const std::size_t lanes = lanes_;
            CORVELLE_INDEPENDENT_LANES
            for (std::size_t i = 0; i < lanes; ++i)
                left[i] = binaryResult<Operation>(left[i], right[i]);
        });
    }

    void binaryWithConstant(const ExpressionOp& op, float right) const {
        forBinary(ExpressionBinary(op.a), [&]<ExpressionBinary Operation>() {
            float* left = row(1);
            const std::size_t lanes = lanes_;
            for (std::size_t i = 0; i < lanes; ++i)
                left[i] = binaryResult<Operation>(left[i], right);
        });
    }

    void binaryVector(const ExpressionOp& op) {
        const bool leftVector = op.b & 1, rightVector = op.b & 2;
        pop((leftVector ? 3 : 1) + (rightVector ? 3 : 1));
        float* const out = top_;
        const float* const right = top_ + (leftVector ? 3 : 1) * stride_;
        const std::size_t leftStep = leftVector ? stride_ : 0,
                          rightStep = rightVector ? stride_ : 0;
        const std::size_t stride = stride_, lanes = lanes_;
        forBinary(ExpressionBinary(op.a), [&]<ExpressionBinary Operation>() {
            // Results overlay the operands, so a lane is read whole before it is written.
            CORVELLE_INDEPENDENT_LANES
            for (std::size_t i = 0; i < lanes; ++i) {
                const float x = binaryResult<Operation>(out[i], right[i]);
                const float y = binaryResult<Operation>(out[leftStep + i], right[rightStep + i]);
                const float z =
                    binaryResult<Operation>(out[2 * leftStep + i], right[2 * rightStep + i]);
                out[i] = x;
                out[stride + i] = y;
                out[2 * stride + i] = z;
            }
        });
        push(3);
    }

    void select(const float* condition, const float* yes, const float* no, float* out) const {
        const std::size_t lanes = lanes_;
        CORVELLE_INDEPENDENT_LANES
        for (std::size_t i = 0; i < lanes; ++i) {
            const float a = yes[i], b = no[i];
            out[i] = condition[i] != 0.0f ? a : b;
        }
    }

    void selectVector() {
        float* const out = row(7);
        const float* const yes = row(6);
        const float* const no = row(3);
        const std::size_t stride = stride_;
        for (std::size_t i = 0; i < lanes_; ++i) {
            const float* from = out[i] != 0.0f ? yes : no;
            const float x = from[i], y = from[stride + i], z = from[2 * stride + i];
            out[i] = x;
            out[stride + i] = y;
            out[2 * stride + i] = z;
        }
        pop(4);
    }

    /// The channel's own values where the lanes lie side by side in it; else null.
    const float* rowOf(const BoundChannel& channel) const {
        if (!channel.values) return nullptr;
        if (channel.perPoint)
            return batch_.pointsInOrder ? channel.values + batch_.points[0] : nullptr;
        return batch_.strandsInOrder ? channel.values + batch_.strands[0] : nullptr;
    }

    void fillChannel(const BoundChannel& channel, float* out) const {
        if (const float* values = rowOf(channel)) {
            std::copy_n(values, lanes_, out);
        } else if (!channel.values) {
            std::fill_n(out, lanes_, 0.0f);
        } else if (!channel.perPoint) {
            for (std::size_t i = 0; i < lanes_; ++i) out[i] = channel.values[batch_.strands[i]];
        } else {
            for (std::size_t i = 0; i < lanes_; ++i) {
                const std::uint64_t point = batch_.points[i];
                out[i] = point == kNoPoint ? 0.0f : channel.values[point];
            }
        }
    }

    /// Maps lie on the scalp: a strand's points read them once.
    void fillMap(const ExpressionOp& op) {
        const BoundMap& bound = batch_.tables->maps[op.index];
        const MapComponent component = MapComponent(op.a);
        float* const out = top_;
        push(op.b ? 3 : 1);
        if (bound.layer.values) {
            if (!op.b && component == MapComponent::A) {
                std::fill_n(out, lanes_, layerComponent(0.0f, component));
                return;
            }
            fillChannel(bound.layer, out);
            for (std::size_t k = 1; op.b && k < 3; ++k) std::copy_n(out, lanes_, out + k * stride_);
            return;
        }
        for (std::size_t i = 0; i < lanes_; ++i) {
            const std::uint32_t strand = batch_.strands[i];
            const bool same = i > 0 && strand == batch_.strands[i - 1];
            if (op.b) {
                const Color4f color =
                    same
                        ? Color4f{out[i - 1], out[stride_ + i - 1], out[2 * stride_ + i - 1]}
                        : bound.map->colorAt(batch_.tables->roots[strand], batch_.rootPositions[i]);
                out[i] = color.r;
                out[stride_ + i] = color.g;
                out[2 * stride_ + i] = color.b;
            } else {
                out[i] = same ? out[i - 1]
                              : bound.map->at(batch_.tables->roots[strand], batch_.rootPositions[i],
                                              component);
            }
        }
    }

    const ExpressionProgram& program_;
    const ExpressionBatch& batch_;
    const std::span<const BoundChannel> channels_;
    const std::size_t stride_;
    const std::size_t lanes_;
    float* top_;  ///< the row behind the last
};

}  // namespace

float evaluate(const ExpressionProgram& program, const StrandRecord& record) {
    return runProgram(program, record).x;
}

Vec3f evaluateVector(const ExpressionProgram& program, const StrandRecord& record) {
    return runProgram(program, record);
}

float evaluateConstant(std::span<const ExpressionOp> operations, const std::vector<Ramp>& curves) {
    return runOnLocalStack<kMaxExpressionStack>(operations, curves, {}, false).x;
}

void evaluateBatch(const ExpressionProgram& program, const ExpressionBatch& batch, float* stack,
                   std::size_t stride) {
    BatchRun(program, batch, stack, stride).run();
    const Opcode last = program.operations.back().opcode;
    if (last == Opcode::Binary || last == Opcode::BinaryVector || last == Opcode::Call ||
        last == Opcode::CallVector)
        return;  // finite as it came
    for (std::size_t k = 0; k < (program.vector ? 3u : 1u); ++k)
        for (std::size_t i = 0; i < batch.lanes; ++i)
            stack[k * stride + i] = finiteOrZero(stack[k * stride + i]);
}

}  // namespace corvelle
