#include "expr/expressionParser.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <utility>

#include "expr/expressionEvaluator.h"
#include "expr/expressionFunctions.h"
#include "expr/expressionLexer.h"

namespace corvelle {

namespace {

using Kind = ExpressionToken::Kind;
using Opcode = ExpressionOpcode;
using Operations = std::vector<ExpressionOp>;

constexpr float kPi = 3.1415927f;
constexpr std::string_view kComponents = "xyzrgb";  // r is x, g is y, b is z

std::string inWords(const char* format, std::string_view name) {
    std::string out(format);
    for (std::size_t at; (at = out.find('@')) != std::string::npos;) out.replace(at, 1, name);
    return out;
}

/// What part of a text compiled to: operations from `begin` on, and their shape.
struct Part {
    std::size_t begin = 0;
    bool vector = false;
    std::size_t offset = 0;  ///< in the text, for messages
};

/// A `$` name: its operations are copied to wherever it is read.
struct Variable {
    Operations operations;
    bool vector = false;
};

ExpressionOp constant(float value) { return {.opcode = Opcode::Const, .value = value}; }
ExpressionOp variableOp(ExpressionVariable v) {
    return {.opcode = Opcode::Var, .a = std::uint8_t(v)};
}

class Parser {
public:
    Parser(const std::string& text, const ExpressionEnvironment& environment, bool perPointAllowed)
        : lexer_(text), perPointAllowed_(perPointAllowed) {
        for (const auto& [name, value] : environment.variables) {
            Variable variable;
            if (const Vec3f* v = std::get_if<Vec3f>(&value)) {
                variable.vector = true;
                variable.operations = {constant(v->x), constant(v->y), constant(v->z)};
            } else {
                variable.operations = {constant(std::get<float>(value))};
            }
            stored_ += variable.operations.size();
            variables_[name] = std::move(variable);
        }
    }

    ExpressionProgram run() {
        while (isAssignment()) assignment();
        const Part value = expression();
        if (token().kind != Kind::End) {
            const std::string_view between =
                lexer_.text().substr(lexer_.endOfLast(), token().offset - lexer_.endOfLast());
            if (between.find('\n') != std::string_view::npos)
                fail("expected ';' at the end of the line above (only the last line is the value)");
            failUnexpected();
        }
        program_.vector = value.vector;
        program_.perPointAllowed = perPointAllowed_;
        program_.operations = std::move(operations_);
        program_.operations.shrink_to_fit();
        program_.stackDepth = stackDepth(program_.operations);
        for (const ExpressionOp& op : program_.operations) {
            if (op.opcode == Opcode::Var) program_.variables |= 1u << op.a;
            if (op.opcode == Opcode::Call) program_.readsIds |= expressionFunctions()[op.a].readsId;
        }
        return std::move(program_);
    }

private:
    /// One level of nesting, counted while it is open.
    class Level {
    public:
        explicit Level(Parser& parser) : parser_(parser) {
            if (++parser_.levels_ > kMaxExpressionLevels + 1) parser_.fail("nested too deeply");
        }
        ~Level() { --parser_.levels_; }
        Level(const Level&) = delete;
        Level& operator=(const Level&) = delete;

    private:
        Parser& parser_;
    };

    const ExpressionToken& token() const { return lexer_.token(); }
    void advance() { lexer_.advance(); }
    [[noreturn]] void fail(std::string_view message) const { lexer_.fail(token().offset, message); }
    [[noreturn]] void failAt(std::size_t offset, std::string_view message) const {
        lexer_.fail(offset, message);
    }
    [[noreturn]] void failUnexpected() const {
        if (token().kind == Kind::End) fail("unexpected end");
        fail("unexpected '" + std::string(token().written) + "'");
    }
    bool accept(std::string_view symbol) {
        if (!token().is(symbol)) return false;
        advance();
        return true;
    }
    void expect(std::string_view symbol, std::string_view otherwise) {
        if (!accept(symbol)) fail(otherwise);
    }
    void emit(const ExpressionOp& op) { operations_.push_back(op); }
    std::size_t here() const { return operations_.size(); }

    // ---- lines ----

    bool isAssignment() const {
        if (token().kind != Kind::Dollar) return false;
        ExpressionLexer ahead = lexer_;
        ahead.advance();
        return ahead.token().is("=");
    }

    void assignment() {
        if (token().text.empty()) fail("expected a name after '$'");
        const std::string name(token().text);
        advance();
        advance();
        const Part value = expression();
        if (!token().is(";"))
            failAt(lexer_.endOfLast(), "expected ';' after the value of $" + name);
        advance();
        Variable& variable = variables_[name];
        stored_ -= variable.operations.size();
        variable.vector = value.vector;
        variable.operations.assign(operations_.begin() + std::ptrdiff_t(value.begin),
                                   operations_.end());
        stored_ += variable.operations.size();
        operations_.resize(value.begin);
    }

    // ---- operators, from the loosest ----

    Part expression() {
        const Level level(*this);
        const Part condition = comparison();
        if (!token().is("?")) return condition;
        if (condition.vector) failAt(condition.offset, "a condition is a number, not a vector");
        advance();
        const Part yes = expression();
        expect(":", "expected ':'");
        const Part no = expression();
        if (yes.vector != no.vector)
            failAt(no.offset, "both values of a condition are numbers, or both are vectors");
        emit({.opcode = yes.vector ? Opcode::SelectVector : Opcode::Select});
        return {condition.begin, yes.vector, condition.offset};
    }

    Part comparison() {
        using enum ExpressionBinary;
        static constexpr std::pair<std::string_view, ExpressionBinary> kSigns[] = {
            {"<", Less},   {"<=", LessOrEqual}, {">", Greater}, {">=", GreaterOrEqual},
            {"==", Equal}, {"!=", NotEqual}};
        Part left = sum();
        for (;;) {
            const auto* sign = std::find_if(std::begin(kSigns), std::end(kSigns),
                                            [&](const auto& s) { return token().is(s.first); });
            if (sign == std::end(kSigns)) return left;
            const std::size_t offset = token().offset;
            advance();
            const Part right = sum();
            if (left.vector || right.vector)
                failAt(offset,
                       "comparisons are of numbers, not vectors (compare .x, length(...) or "
                       "dot(...))");
            emitBinary(sign->second, left, right);
        }
    }

    Part sum() {
        Part left = product();
        for (;;) {
            const bool plus = token().is("+");
            if (!plus && !token().is("-")) return left;
            advance();
            const Part right = product();
            left.vector =
                emitBinary(plus ? ExpressionBinary::Add : ExpressionBinary::Subtract, left, right);
        }
    }

    Part product() {
        Part left = power();
        for (;;) {
            const bool times = token().is("*");
            if (!times && !token().is("/")) return left;
            advance();
            const Part right = power();
            left.vector = emitBinary(times ? ExpressionBinary::Multiply : ExpressionBinary::Divide,
                                     left, right);
        }
    }

    Part power() {
        Part base = unary();
        if (!accept("^")) return base;
        const Level level(*this);
        const Part exponent = power();
        base.vector = emitBinary(ExpressionBinary::Power, base, exponent);
        return base;
    }

    Part unary() {
        if (!token().is("-")) return postfix();
        const Level level(*this);
        const std::size_t offset = token().offset;
        advance();
        Part part = unary();
        part.offset = offset;
        // A negative number is one constant.
        if (here() == part.begin + 1 && operations_.back().opcode == Opcode::Const)
            operations_.back().value = -operations_.back().value;
        else
            emit({.opcode = part.vector ? Opcode::NegVector : Opcode::Neg});
        return part;
    }

    /// True when the result is a vector.
    bool emitBinary(ExpressionBinary operation, const Part& left, const Part& right) {
        ExpressionOp op{.opcode = Opcode::Binary, .a = std::uint8_t(operation)};
        if (left.vector || right.vector) {
            op.opcode = Opcode::BinaryVector;
            op.b = std::uint16_t((left.vector ? 1 : 0) | (right.vector ? 2 : 0));
        }
        emit(op);
        return left.vector || right.vector;
    }

    // ---- components ----

    Part postfix() {
        std::string dollar = token().kind == Kind::Dollar ? std::string(token().text) : "";
        Part part = primary();
        for (;;) {
            if (token().is(".")) {
                if (!part.vector && !dollar.empty())
                    fail("$" + dollar + " is a number: it has no .");
                if (!part.vector) fail("a number has no .");
                advance();
                const std::size_t component = token().kind == Kind::Name && token().text.size() == 1
                                                  ? kComponents.find(token().text[0])
                                                  : std::string_view::npos;
                if (component == std::string_view::npos)
                    fail("a vector has .x, .y and .z (or .r, .g and .b)");
                advance();
                takeComponent(part, component % 3);
            } else if (token().is("[")) {
                if (!part.vector) fail("a number has no components to index");
                advance();
                const float index = token().kind == Kind::Number ? token().number : -1.0f;
                if (index != 0.0f && index != 1.0f && index != 2.0f)
                    fail("a vector's index is 0, 1 or 2");
                advance();
                expect("]", "expected ']' after the index");
                takeComponent(part, std::size_t(index));
            } else {
                return part;
            }
            dollar.clear();
        }
    }

    void takeComponent(Part& part, std::size_t component) {
        part.vector = false;
        // Three plain pushes: the one is all that is needed.
        const auto pushes = [&](std::size_t k) {
            const Opcode opcode = operations_[part.begin + k].opcode;
            return opcode == Opcode::Const || opcode == Opcode::Var || opcode == Opcode::Channel;
        };
        if (here() == part.begin + 3 && pushes(0) && pushes(1) && pushes(2)) {
            operations_[part.begin] = operations_[part.begin + component];
            operations_.resize(part.begin + 1);
        } else {
            emit({.opcode = Opcode::Component, .a = std::uint8_t(component)});
        }
    }

    // ---- primaries ----

    Part primary() {
        Part part{.begin = here(), .vector = false, .offset = token().offset};
        switch (token().kind) {
            case Kind::Number:
                emit(constant(token().number));
                advance();
                return part;
            case Kind::Name:
                name(part);
                return part;
            case Kind::Dollar:
                dollar(part);
                return part;
            case Kind::Quoted:
                fail("text in quotes names a map, in map(\"name\")");
            case Kind::Symbol:
                break;
            case Kind::End:
                failUnexpected();
        }
        if (accept("(")) {
            const Part inner = expression();
            expect(")", "expected ')'");
            part.vector = inner.vector;
            return part;
        }
        if (accept("[")) {
            for (int k = 0; k < 3; ++k) {
                if (k > 0) expect(",", "a vector is [x, y, z]: expected ','");
                const Part component = expression();
                if (component.vector) failAt(component.offset, "a vector's components are numbers");
            }
            expect("]", "a vector is [x, y, z]: expected ']'");
            part.vector = true;
            return part;
        }
        if (token().is(".")) fail("bad number");
        failUnexpected();
    }

    void dollar(Part& part) {
        if (token().text.empty()) fail("expected a name after '$'");
        const std::string name(token().text);
        const auto found = variables_.find(name);
        if (found == variables_.end()) {
            const std::size_t offset = token().offset;
            advance();
            failAt(offset, token().is(".") || token().is("[")
                               ? "unknown vector $" + name
                               : "unknown variable $" + name + " (write $" + name +
                                     " = ...; in a line above)");
        }
        const Variable& variable = found->second;
        const std::size_t used = here() + variable.operations.size();
        // What many names hold is bounded too: each is a copy of others.
        if (used > kMaxExpressionOperations || used + stored_ > kMaxStoredOperations)
            fail(
                inWords("the expression is too long once $@ is put in where it is read (1048576 "
                        "operations at most): read it in fewer places",
                        name));
        operations_.insert(operations_.end(), variable.operations.begin(),
                           variable.operations.end());
        part.vector = variable.vector;
        advance();
    }

    void pushVariable(ExpressionVariable v, std::string_view name, std::size_t offset) {
        if (!perPointAllowed_ && (variableBit(v) & kPointVariables))
            failAt(offset,
                   inWords("@ varies along the strand; this takes one value per strand", name));
        emit(variableOp(v));
    }

    void name(Part& part) {
        const std::string_view name = token().text;
        advance();
        if (token().is("(")) return call(name, part);
        if (const auto parts = vectorVariablesNamed(name)) {
            for (const ExpressionVariable v : *parts) pushVariable(v, name, part.offset);
            part.vector = true;
        } else if (const auto variable = variableNamed(name)) {
            pushVariable(*variable, name, part.offset);
        } else if (name == "pi") {
            emit(constant(kPi));
        } else {
            emit({.opcode = Opcode::Channel,
                  .index = placeOf(name, channelPlaces_, program_.channels)});
        }
    }

    using Places = std::map<std::string, std::uint32_t, std::less<>>;
    static std::uint32_t placeOf(std::string_view name, Places& places,
                                 std::vector<std::string>& names) {
        const auto [place, isNew] =
            places.try_emplace(std::string(name), std::uint32_t(names.size()));
        if (isNew) names.emplace_back(name);
        return place->second;
    }

    // ---- calls ----

    void call(std::string_view name, Part& part) {
        const auto functions = expressionFunctions();
        const auto named = [&](const ExpressionFunction& f) { return f.name == name; };
        const auto row = std::find_if(functions.begin(), functions.end(), named);
        if (row == functions.end())
            failAt(part.offset, "unknown function '" + std::string(name) + "'");
        advance();
        part.vector = row->vectorResult;
        if (row->family == ExpressionFamily::Map) return mapCall(*row);

        std::vector<Part> arguments;
        if (!token().is(")")) {
            do arguments.push_back(expression());
            while (accept(","));
        }
        const std::size_t close = token().offset;
        if (!token().is(")")) failAt(close, inWords("expected ')' after the arguments of @", name));
        advance();

        const auto fits = [&](const ExpressionFunction& f) {
            return named(f) && arguments.size() >= f.least && arguments.size() <= f.most;
        };
        const auto found = std::find_if(row, functions.end(), fits);
        if (found == functions.end()) failCount(*row, arguments.size(), part.offset);
        checkShapes(*found, arguments);
        part.vector = found->vectorResult;

        std::uint32_t curve = 0;
        if (found->family == ExpressionFamily::Curve || found->family == ExpressionFamily::Spline)
            curve = bakeCurve(*found, arguments, part.offset);
        const std::size_t floats =
            found->family == ExpressionFamily::Curve || found->family == ExpressionFamily::Spline
                ? 1
                : arguments.size() + 2u * found->vectors;
        emit({.opcode = part.vector ? Opcode::CallVector : Opcode::Call,
              .a = std::uint8_t(found - functions.begin()),
              .b = std::uint16_t(floats),
              .index = curve});
    }

    [[noreturn]] void failCount(const ExpressionFunction& f, std::size_t got,
                                std::size_t offset) const {
        const std::string count = std::to_string(got) + " argument(s)";
        if (f.name == "noise") failAt(offset, "noise takes (x, y, z) or a point (p), got " + count);
        std::string takes = std::to_string(f.least);
        if (f.most != f.least) takes += " to " + std::to_string(f.most);
        failAt(offset, std::string(f.name) + " takes " + takes + " argument(s), got " +
                           std::to_string(got));
    }

    void checkShapes(const ExpressionFunction& f, const std::vector<Part>& arguments) const {
        for (std::size_t k = 0; k < arguments.size(); ++k) {
            const bool wanted = k < f.vectors;
            if (arguments[k].vector == wanted) continue;
            const std::string argument =
                "argument " + std::to_string(k + 1) + " of " + std::string(f.name);
            if (wanted) failAt(arguments[k].offset, argument + " is a number");
            if (f.family == ExpressionFamily::Point)
                failAt(arguments[k].offset,
                       inWords("@'s arguments after the point are numbers", f.name));
            if (f.family == ExpressionFamily::Numbers || f.family == ExpressionFamily::Vectors)
                failAt(arguments[k].offset, argument + " is a vector ([x, y, z])");
            failAt(arguments[k].offset, inWords("@'s arguments are numbers", f.name));
        }
    }

    bool isConstant(std::size_t begin, std::size_t end) const {
        return std::all_of(operations_.begin() + std::ptrdiff_t(begin),
                           operations_.begin() + std::ptrdiff_t(end), [](const ExpressionOp& op) {
                               switch (op.opcode) {
                                   case Opcode::Var:
                                   case Opcode::Channel:
                                   case Opcode::Map:
                                       return false;
                                   case Opcode::Call:
                                       return !expressionFunctions()[op.a].readsId;
                                   default:
                                       return true;
                               }
                           });
    }

    /// Takes the operations of the keys away again and gives the number of the curve they make.
    std::uint32_t bakeCurve(const ExpressionFunction& f, const std::vector<Part>& arguments,
                            std::size_t offset) {
        const bool pairs = f.family == ExpressionFamily::Curve;
        if (pairs && arguments.size() % 2 == 0)
            failAt(offset, inWords("@ takes t and pairs of position and value: (t, p0, v0, p1, v1, "
                                   "...)",
                                   f.name));
        std::vector<float> values;
        for (std::size_t k = 1; k < arguments.size(); ++k) {
            const std::size_t begin = arguments[k].begin;
            const std::size_t end = k + 1 < arguments.size() ? arguments[k + 1].begin : here();
            if (!isConstant(begin, end))
                failAt(arguments[k].offset,
                       inWords("@'s keys are numbers (or the node's own variables), fixed when the "
                               "expression compiles",
                               f.name));
            const std::span<const ExpressionOp> key =
                std::span<const ExpressionOp>(operations_).subspan(begin, end - begin);
            if (stackDepth(key) > kMaxExpressionStack) failTooDeep();
            values.push_back(evaluateConstant(key, program_.curves));
        }
        operations_.resize(arguments[1].begin);
        std::vector<Ramp::Key> keys;
        if (pairs) {
            for (std::size_t k = 0; k < values.size(); k += 2)
                keys.emplace_back(values[k], values[k + 1]);
        } else {
            const float last = float(std::max<std::size_t>(values.size() - 1, 1));
            for (std::size_t k = 0; k < values.size(); ++k)
                keys.emplace_back(float(k) / last, values[k]);
        }
        if (program_.curves.size() >= kMaxExpressionCurves) failAt(offset, "too many curves");
        program_.curves.emplace_back(std::move(keys), f.name == "linearcurve");
        return std::uint32_t(program_.curves.size() - 1);
    }

    [[noreturn]] void failTooDeep() const {
        throw ExpressionError("expression '" + std::string(lexer_.text()) +
                              "' is nested too deeply");
    }

    /// map("name"), map("name", channel) and cmap("name"); the bracket is open.
    void mapCall(const ExpressionFunction& f) {
        if (token().is(")")) fail(inWords("@ needs the map's name", f.name));
        if (token().kind != Kind::Quoted) fail("expected a name in quotes");
        if (!token().closed) fail("the quotes are not closed");
        if (token().text.empty()) fail(inWords("@ needs the map's name", f.name));
        const std::size_t uses = program_.maps.size();
        const auto [place, isNew] =
            mapPlaces_.try_emplace(std::string(token().text), std::uint32_t(uses));
        if (isNew) program_.maps.push_back({std::string(token().text), token().offset});
        advance();
        ExpressionOp op{.opcode = Opcode::Map,
                        .a = std::uint8_t(MapComponent::Luminance),
                        .b = std::uint16_t(f.vectorResult ? 1 : 0),
                        .index = place->second};
        if (token().is(",")) {
            if (f.vectorResult) fail("cmap takes the map's name alone (it gives r, g, b)");
            advance();
            op.a = std::uint8_t(mapChannel());
            std::size_t got = 2;
            while (accept(",")) {
                if (token().kind == Kind::Quoted)
                    advance();
                else
                    expression();
                ++got;
            }
            if (got > f.most) failCount(f, got, token().offset);
        }
        expect(")", inWords("expected ')' after the arguments of @", f.name));
        emit(op);
    }

    MapComponent mapChannel() {
        static constexpr std::pair<std::string_view, MapComponent> kWords[] = {
            {"r", MapComponent::R},
            {"g", MapComponent::G},
            {"b", MapComponent::B},
            {"a", MapComponent::A},
            {"luminance", MapComponent::Luminance},
            {"lum", MapComponent::Luminance}};
        const ExpressionToken channel = token();
        if (channel.kind == Kind::Quoted) {
            if (!channel.closed) fail("the quotes are not closed");
            for (const auto& [word, component] : kWords)
                if (channel.text == word) return advance(), component;
            fail("a map's channel is \"r\", \"g\", \"b\", \"a\" or \"luminance\"");
        }
        const float number = channel.kind == Kind::Number ? channel.number : -1.0f;
        if (!(number >= 0.0f && number <= 4.0f && number == std::floor(number)))
            fail("a map's channel is 0 (r), 1 (g), 2 (b), 3 (a) or 4 (luminance)");
        advance();
        return MapComponent(int(number));
    }

    ExpressionLexer lexer_;
    const bool perPointAllowed_;
    ExpressionProgram program_;
    Operations operations_;
    std::map<std::string, Variable, std::less<>> variables_;
    std::size_t stored_ = 0;  ///< operations of all `$` names
    Places channelPlaces_;
    Places mapPlaces_;
    int levels_ = 0;
};

}  // namespace

std::shared_ptr<const ExpressionProgram> parseExpression(std::string text,
                                                         const ExpressionEnvironment& environment,
                                                         bool perPointAllowed,
                                                         ExpressionMap::Shape wanted) {
    ExpressionProgram program = Parser(text, environment, perPointAllowed).run();
    const std::string quoted = "expression '" + text + "'";
    if (program.stackDepth > kMaxExpressionStack)
        throw ExpressionError(quoted + " is nested too deeply");
    if (program.vector && wanted == ExpressionMap::Shape::Number)
        throw ExpressionError(quoted +
                              " gives a vector; this takes a number (use .x, length(...) or "
                              "dot(...))");
    if (!program.vector && wanted == ExpressionMap::Shape::Vector)
        throw ExpressionError(quoted +
                              " gives a number; this takes a vector, e.g. [0, -1, 0] or "
                              "normalize(N)");
    program.text = std::move(text);
    return std::make_shared<const ExpressionProgram>(std::move(program));
}

}  // namespace corvelle
