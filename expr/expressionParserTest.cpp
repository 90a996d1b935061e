#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "expr/expressionParser.h"
#include "expr/expressionTestTools.h"

namespace corvelle {
namespace {

using namespace testing_;

std::string repeated(const std::string& text, std::size_t times) {
    std::string out;
    for (std::size_t i = 0; i < times; ++i) out += text;
    return out;
}

TEST(ExpressionGrammar, BindsAsTold) {
    const std::vector<std::pair<std::string, float>> cases = {
        {"-2^2", 4.0f},  // unary minus binds tighter
        {"2^-1", 0.5f},
        {"2^3^2", 512.0f},  // to the right
        {"-(2^2)", -4.0f},
        {"1 - 2 - 3", -4.0f},
        {"12 / 3 / 2", 2.0f},
        {"1 + 2 * 3", 7.0f},
        {"--3", 3.0f},
        {"2 * -3", -6.0f},
        {"1 + 1 < 3", 1.0f},
        {"3 > 2 > 1", 0.0f},  // (1) > 1
        {"1 < 2 == 1", 1.0f},
        {"2 <= 2", 1.0f},
        {"2 >= 3", 0.0f},
        {"2 != 3", 1.0f},
        {"0 ? 1 : 0 ? 2 : 3", 3.0f},  // right-associative
        {"1 ? 0 ? 4 : 5 : 6", 5.0f},
        {"1 < 2 ? 10 : 20", 10.0f},
        {"[1, 2, 3].y", 2.0f},
        {"[1, 2, 3].r + [1, 2, 3].g * 10 + [1, 2, 3].b * 100", 321.0f},
        {"([1, 2, 3] * 2)[2]", 6.0f},
        {"-[1, 2, 3].z", -3.0f},
        {"cross([1, 0, 0], [0, 1, 0]).z", 1.0f},
        {".5 + 1.", 1.5f},
        {"1e3 + 2E-1", 1000.2f},
        {"1e-999", 0.0f},
        {"pi", 3.1415927f},
        {"1 # a comment\n + 2 // and another\n", 3.0f},
        {"\t 1\r\n", 1.0f}};
    for (const auto& [text, expected] : cases) EXPECT_EQ(valueOf(text), expected) << text;
}

TEST(ExpressionGrammar, CombinesVectorsByComponentAndWithNumbers) {
    EXPECT_EQ(vectorOf("[1, 2, 3] * 2"), (Vec3f{2, 4, 6}));
    EXPECT_EQ(vectorOf("2 * [1, 2, 3]"), (Vec3f{2, 4, 6}));
    EXPECT_EQ(vectorOf("12 / [1, 2, 3]"), (Vec3f{12, 6, 4}));
    EXPECT_EQ(vectorOf("10 - [1, 2, 3]"), (Vec3f{9, 8, 7}));
    EXPECT_EQ(vectorOf("[1, 2, 3] - [3, 2, 1]"), (Vec3f{-2, 0, 2}));
    EXPECT_EQ(vectorOf("-[1, 2, 3] / 0"), (Vec3f{0, 0, 0}));
    EXPECT_EQ(vectorOf("[1, 2, 3] ^ 2"), (Vec3f{1, 4, 9}));
    EXPECT_EQ(vectorOf("2 ^ [1, 2, 3]"), (Vec3f{2, 4, 8}));
    EXPECT_EQ(vectorOf("0 ? [1, 2, 3] : [4, 5, 6]"), (Vec3f{4, 5, 6}));
    EXPECT_EQ(vectorOf("[P.z, P.y, P.x]"), (Vec3f{3, 2, 1}));
}

TEST(ExpressionGrammar, PutsDollarNamesIn) {
    EXPECT_EQ(valueOf("$a = 2; $b = $a * $a + 1; $b * 10"), 50.0f);
    EXPECT_EQ(valueOf("$a = 2;\n$a = $a + 1;\n$a"), 3.0f);
    EXPECT_EQ(valueOf("$v = [1, 2, x]; $v.z + $v[1]"), 3.0f);
    EXPECT_EQ(valueOf("$2nd = 4; $2nd"), 4.0f);
    EXPECT_EQ(valueOf("$a = 2; $a == 2"), 1.0f);
    ExpressionEnvironment environment;
    environment.variables = {{"amount", 0.25f}, {"axis", Vec3f{1, 2, 3}}};
    EXPECT_EQ(valueOf("$amount * $axis.y", environment), 0.5f);
    EXPECT_EQ(valueOf("$amount = 4; $amount", environment), 4.0f);
    EXPECT_EQ(valueOf("linearcurve($amount, 0, $amount, 1, $axis.z)", environment), 0.9375f);
}

TEST(ExpressionErrors, SayWhatAndWhere) {
    const std::vector<std::tuple<std::string, std::string, int>> cases = {
        {"", "unexpected end", 1},
        {"1 +", "unexpected end", 4},
        {"1 2", "unexpected '2'", 3},
        {"1;", "unexpected ';'", 2},
        {"+1", "unexpected '+'", 1},
        {"1 % 2", "unexpected '%'", 3},
        {"1 + \xc3\xa9", "unexpected '\xc3\xa9'", 5},
        {"1e999", "bad number", 1},
        {"1 + .", "bad number", 5},
        {"P ? 1 : 2", "a condition is a number, not a vector", 1},
        {"1 ? 2", "expected ':'", 6},
        {"1 ? 2 : P", "both values of a condition are numbers, or both are vectors", 9},
        {"[1,2,3] < 1",
         "comparisons are of numbers, not vectors (compare .x, length(...) or dot(...))", 9},
        {"x.x", "a number has no .", 2},
        {"$a = 1; $a.x", "$a is a number: it has no .", 11},
        {"($a).x", "unknown variable $a (write $a = ...; in a line above)", 2},
        {"$a.x", "unknown vector $a", 1},
        {"x[0]", "a number has no components to index", 2},
        {"P[3]", "a vector's index is 0, 1 or 2", 3},
        {"P[x]", "a vector's index is 0, 1 or 2", 3},
        {"P[1", "expected ']' after the index", 4},
        {"P.w", "a vector has .x, .y and .z (or .r, .g and .b)", 3},
        {"(1", "expected ')'", 3},
        {"[P, 1, 2].x", "a vector's components are numbers", 2},
        {"[1 2 3]", "a vector is [x, y, z]: expected ','", 4},
        {"[1, 2, 3", "a vector is [x, y, z]: expected ']'", 9},
        {"'hair'", "text in quotes names a map, in map(\"name\")", 1},
        {"$ + 1", "expected a name after '$'", 1},
        {"$a = 1 $a", "expected ';' after the value of $a", 7},
        {"foo(1)", "unknown function 'foo'", 1},
        {"2 * sin(1, 2)", "sin takes 1 argument(s), got 2", 5},
        {"sin()", "sin takes 1 argument(s), got 0", 1},
        {"fbm(P, 1, 2, 3, 4)", "fbm takes 1 to 4 argument(s), got 5", 1},
        {"sin(1", "expected ')' after the arguments of sin", 6},
        {"noise(1, 2)", "noise takes (x, y, z) or a point (p), got 2 argument(s)", 1},
        {"noise(1)", "argument 1 of noise is a number", 7},
        {"max(1, P)", "argument 2 of max is a vector ([x, y, z])", 8},
        {"choose(1, P, 2)", "choose's arguments are numbers", 11},
        {"dot(P, 1)", "argument 2 of dot is a number", 8},
        {"rotate(P, N, N).x", "argument 3 of rotate is a vector ([x, y, z])", 14},
        {"fbm(P, P)", "fbm's arguments after the point are numbers", 8},
        {"curve(t, 0, 1)", "", 0},
        {"curve(t, 0, 1, 2)",
         "curve takes t and pairs of position and value: (t, p0, v0, p1, v1, ...)", 1},
        {"spline(t, 0, x)",
         "spline's keys are numbers (or the node's own variables), fixed when the expression "
         "compiles",
         14},
        {"linearcurve(t, 0, rand(1))",
         "linearcurve's keys are numbers (or the node's own variables), fixed when the expression "
         "compiles",
         19},
        {"map()", "map needs the map's name", 5},
        {"cmap(\"\").x", "cmap needs the map's name", 6},
        {"map(hair)", "expected a name in quotes", 5},
        {"map(\"hair)", "the quotes are not closed", 5},
        {"map(\"hair\", 5)", "a map's channel is 0 (r), 1 (g), 2 (b), 3 (a) or 4 (luminance)", 13},
        {"map(\"hair\", \"h\")", "a map's channel is \"r\", \"g\", \"b\", \"a\" or \"luminance\"",
         13},
        {"map(\"hair\", 1, 2)", "map takes 1 to 2 argument(s), got 3", 17},
        {"cmap(\"hair\", 1).x", "cmap takes the map's name alone (it gives r, g, b)", 12},
        {"map(\"hair\" 1)", "expected ')' after the arguments of map", 12},
        {"1 + map(\"hair\")", "no map named 'hair' (Groom Tools > Paint lists them)", 9},
    };
    for (const auto& [text, message, position] : cases) {
        const std::string expected = message.empty()
                                         ? ""
                                         : "expression '" + text + "': " + message +
                                               " at position " + std::to_string(position);
        EXPECT_EQ(errorOf(text), expected);
    }
}

TEST(ExpressionErrors, TellLinesAndColumnsOfSeveralLines) {
    EXPECT_EQ(errorOf("x * 2\ny * 3"),
              "expression 'x * 2\ny * 3': expected ';' at the end of the line above (only the last "
              "line is the value) at position 7 (line 2, column 1)");
    EXPECT_EQ(errorOf("$a = 1\n$a"),
              "expression '$a = 1\n$a': expected ';' after the value of $a at position 7 (line 1, "
              "column 7)");
    EXPECT_EQ(errorOf("$a = 1;\n  $a * ?"),
              "expression '$a = 1;\n  $a * ?': unexpected '?' at position 16 (line 2, column 8)");
}

TEST(ExpressionErrors, AreWholeWhateverTheText) {
    EXPECT_EQ(errorOf(std::string("1 + \0x", 6)),
              "expression '1 +  x': unexpected ' ' at position 5");
}

TEST(ExpressionErrors, TellShapesApart) {
    using enum ExpressionMap::Shape;
    EXPECT_EQ(errorOf("P"),
              "expression 'P' gives a vector; this takes a number (use .x, length(...) or "
              "dot(...))");
    EXPECT_EQ(errorOf("1", true, Vector),
              "expression '1' gives a number; this takes a vector, e.g. [0, -1, 0] or "
              "normalize(N)");
    EXPECT_EQ(errorOf("N", true, Vector), "");
}

TEST(ExpressionErrors, RefusePointVariablesWhereOneValuePerStrandIsTaken) {
    for (const std::string name : {"t", "pt", "px", "py", "pz", "pointIndex"})
        EXPECT_EQ(errorOf("1 + " + name, false),
                  "expression '1 + " + name + "': " + name +
                      " varies along the strand; this takes one value per strand at position 5");
    EXPECT_EQ(errorOf("pointP.x", false),
              "expression 'pointP.x': pointP varies along the strand; this takes one value per "
              "strand at position 1");
    EXPECT_EQ(errorOf("x + u + length + rand(1)", false), "");
}

TEST(ExpressionLimits, CountLevelsOfNesting) {
    const auto nested = [](std::size_t levels) {
        return repeated("(", levels) + "1" + repeated(")", levels);
    };
    EXPECT_EQ(valueOf(nested(200)), 1.0f);
    EXPECT_EQ(errorOf(nested(201)),
              "expression '" + nested(201) + "': nested too deeply at position 202");
    const auto minuses = [](std::size_t count) { return repeated("-", count) + "1"; };
    EXPECT_EQ(valueOf(minuses(200)), 1.0f);
    EXPECT_NE(errorOf(minuses(201)), "");
    EXPECT_NE(errorOf(repeated("2^", 100'000) + "1"), "");
    EXPECT_NE(errorOf(repeated("sin(", 100'000)), "");
    EXPECT_NE(errorOf(repeated("[", 100'000)), "");
    EXPECT_NE(errorOf(repeated("1 ? ", 100'000)), "");
}

/// Two hundred levels of calls with 64 arguments, all of which wait for the innermost.
std::string deepest(std::string innermost) {
    for (int level = 0; level < 200; ++level)
        innermost = "choose(1" + repeated(", 0", 62) + ", 1 + 0.5 * " + innermost + ")";
    return innermost;
}

TEST(ExpressionLimits, HoldTwoHundredLevelsOfSixtyFourArguments) {
    EXPECT_EQ(valueOf(deepest("2")), 2.0f);
}

TEST(ExpressionLimits, RefuseAStackPastItsEnd) {
    const std::string text = "$a = " + deepest("1") + "; " + deepest("$a");
    EXPECT_EQ(errorOf(text), "expression '" + text + "' is nested too deeply");
    const std::string key = "$a = " + deepest("1") + "; spline(1, " + deepest("1") + ")";
    EXPECT_NE(errorOf(key), "");  // one level more
    EXPECT_EQ(valueOf("$a = " + deepest("2") + "; spline(1, $a)"), 2.0f);
}

TEST(ExpressionLimits, CountTheOperationsThatDollarNamesPutIn) {
    std::string text = "$a = x + 1;";
    for (int k = 0; k < 40; ++k) text += "$a = $a + $a;";
    const std::string error = errorOf(text + "$a");
    EXPECT_NE(
        error.find("': the expression is too long once $a is put in where it is read (1048576 "
                   "operations at most): read it in fewer places at position "),
        std::string::npos)
        << error.substr(error.size() - std::min<std::size_t>(error.size(), 200));
    // 2^20 - 1 operations are within the limit, 2^20 + 1 are not, whatever other names hold.
    std::string doubled = "$a0 = 1;";
    for (int k = 1; k < 20; ++k) {
        const std::string before = "$a" + std::to_string(k - 1);
        doubled += "$a" + std::to_string(k) + " = " + before + " + " + before + ";";
    }
    EXPECT_EQ(valueOf(doubled + "$a19"), 524'288.0f);
    EXPECT_NE(errorOf(doubled + "$a19 + $a1").find("too long once $a1 is put in"),
              std::string::npos);
    // The same through many names, each within the limit alone.
    std::string wide = "$a0 = x + 1;";
    for (int k = 1; k < 17; ++k)
        wide += "$a" + std::to_string(k) + " = $a" + std::to_string(k - 1) + " + $a" +
                std::to_string(k - 1) + ";";
    for (int k = 0; k < 1000; ++k) wide += "$b" + std::to_string(k) + " = $a16;";
    EXPECT_NE(errorOf(wide + "1").find("the expression is too long once $a"), std::string::npos);
}

TEST(ExpressionLimits, TakeLongTextsAndManyCurves) {
    EXPECT_EQ(valueOf("1" + repeated(" + 1", 100'000)), 100'001.0f);
    EXPECT_EQ(valueOf(repeated(" ", 1'000'000) + "1"), 1.0f);
    EXPECT_EQ(valueOf(std::string("0.") + repeated("0", 5000) + "1e5001"), 1.0f);
    std::string curves = "0";
    for (int k = 0; k < 65'534; ++k) curves += "+curve(1,0,1)";
    EXPECT_EQ(valueOf(curves), 65'534.0f);
    EXPECT_NE(errorOf(curves + "+curve(1,0,1)").find("': too many curves at position "),
              std::string::npos);
    EXPECT_EQ(errorOf("choose(0" + repeated(", 1", 64) + ")"),
              "expression 'choose(0" + repeated(", 1", 64) +
                  ")': choose takes 2 to 64 argument(s), got 65 at position 1");
}

TEST(ExpressionProgram, HasOperationsOfTwelveBytesAndItsExactDepth) {
    const ExpressionEnvironment none;
    const auto program =
        parseExpression("$v = [x, y, clumpId]; dot($v, P * 2) > t ? $v.y : curve(t, 0, 1)", none,
                        true, ExpressionMap::Shape::Number);
    EXPECT_EQ(program->stackDepth, 7u);  // two vectors and the 2
    EXPECT_EQ(program->channels, std::vector<std::string>{"clumpId"});
    EXPECT_EQ(program->curves.size(), 1u);
    EXPECT_TRUE(program->perPoint());
    // P.y is one push.
    EXPECT_EQ(parseExpression("P.y", none, true, ExpressionMap::Shape::Number)->operations.size(),
              1u);
    EXPECT_EQ(parseExpression("tip.y", none, true, ExpressionMap::Shape::Number)->variables,
              variableBit(ExpressionVariable::TipY));
}

}  // namespace
}  // namespace corvelle
