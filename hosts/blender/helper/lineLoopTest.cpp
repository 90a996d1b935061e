#include <random>
#include <set>
#include <sstream>

#include <gmock/gmock.h>

#include "hosts/blender/helper/command.h"
#include "hosts/blender/helper/dispatch.h"
#include "hosts/blender/helper/handle.h"
#include "hosts/blender/helper/lineLoop.h"
#include "hosts/blender/helper/requestError.h"

namespace corvelle {
namespace {

class LineLoop : public testing::Test {
protected:
    Json ask(std::string_view line) {
        const std::optional<std::string> reply = answerLine(state, line);
        if (!reply) return "no reply";
        EXPECT_EQ(reply->find('\n'), reply->size() - 1) << "one line";
        return Json::parse(*reply);
    }
    std::string failure(std::string_view line) {
        const Json reply = ask(line);
        EXPECT_FALSE(reply.at("ok"));
        return reply["error"]["code"].get<std::string>() + ": " +
               reply["error"]["message"].get<std::string>();
    }

    HelperState state;
};

TEST_F(LineLoop, BlankLinesHaveNoReply) {
    for (const char* line : {"", " ", "\t \t", "\r", " \r"})
        EXPECT_EQ(ask(line), "no reply") << line;
    EXPECT_EQ(failure("\r\r"), "bad_request: not a JSON line") << "one CR is stripped, one stays";
    EXPECT_TRUE(ask("{\"cmd\":\"ping\"}\r\r")["ok"]) << "and is white space behind a request";
}

TEST_F(LineLoop, LinesThatAreNoJsonAreAnsweredWithoutAnId) {
    const std::string deep(600, '[');
    for (const std::string& line :
         {std::string("{\"id\":1"), std::string("hello"), std::string("{\"id\":1e999}"),
          std::string("{\"id\":\"\xff\"}"), std::string("{} {}"), std::string("/* */ {}"),
          std::string("{\"id\":NaN}"), std::string("\0", 1), deep + std::string(600, ']')})
        EXPECT_EQ(ask(line), Json::parse(R"({"error": {"code": "bad_request",
            "message": "not a JSON line"}, "id": null, "ok": false})"))
            << line;
}

TEST_F(LineLoop, NestingIsCountedOutsideOfStringsUpToItsLimit) {
    const auto nested = [](std::size_t depth) {
        return "{\"cmd\":\"ping\",\"id\":" + std::string(depth - 1, '[') +
               std::string(depth - 1, ']') + "}";
    };
    EXPECT_TRUE(ask(nested(kDeepestNesting))["ok"]);
    EXPECT_EQ(failure(nested(kDeepestNesting + 1)), "bad_request: not a JSON line");
    EXPECT_EQ(failure("{\"id\":" + std::string(200'000, '[')), "bad_request: not a JSON line");
    const Json text = "\\\"" + std::string(1000, '[');
    EXPECT_EQ(ask(Json{{"cmd", "ping"}, {"id", text}}.dump())["id"], text);
}

TEST_F(LineLoop, IdsOfAnyKindComeBackUnchanged) {
    for (const char* id : {"null", "3", "-1.5", "\"é\\u0000\"", "[1,[2]]", "{\"b\":1,\"a\":[]}",
                           "18446744073709551615", "true"}) {
        const Json want = Json::parse(id);
        EXPECT_EQ(ask("{\"cmd\":\"ping\",\"id\":" + std::string(id) + "}")["id"], want);
        EXPECT_EQ(ask("{\"cmd\":\"nothing\",\"id\":" + std::string(id) + "}")["id"], want);
    }
    EXPECT_TRUE(ask("{\"cmd\":\"ping\"}")["id"].is_null());
}

TEST_F(LineLoop, RepliesAreCompactWithAscendingKeys) {
    EXPECT_EQ(answerLine(state, R"({"id": "ü", "cmd": "ping"})"),
              "{\"id\":\"ü\",\"ok\":true,\"result\":{\"pong\":true}}\n");
    EXPECT_EQ(answerLine(state, R"({"id": 3})"),
              "{\"error\":{\"code\":\"bad_request\",\"message\":\"a request needs \\\"cmd\\\"\"},"
              "\"id\":3,\"ok\":false}\n");
}

TEST_F(LineLoop, RequestsMustBeObjectsWithACommand) {
    for (const char* line : {"5", "[]", "\"ping\"", "null", "true"})
        EXPECT_EQ(failure(line), "bad_request: a request is a JSON object");
    for (const char* line : {"{}", "{\"cmd\":7}", "{\"cmd\":null}", "{\"cmd\":[\"ping\"]}"})
        EXPECT_EQ(failure(line), "bad_request: a request needs \"cmd\"");
    EXPECT_EQ(failure(R"({"cmd":"Ping"})"), "unknown_command: no command 'Ping'");
    EXPECT_EQ(failure(R"({"cmd":""})"), "unknown_command: no command ''");
}

TEST_F(LineLoop, HelloChecksAProtocolThatIsAnInteger) {
    for (const char* protocol : {"1", "null", "\"2\"", "1.5", "2.0", "[2]"}) {
        const Json reply = ask("{\"cmd\":\"hello\",\"protocol\":" + std::string(protocol) + "}");
        ASSERT_TRUE(reply["ok"]) << protocol;
        EXPECT_EQ(reply["result"]["protocol"], 1);
        EXPECT_EQ(reply["result"]["version"], "0.2.1");
    }
    for (const char* protocol : {"2", "0", "-1", "18446744073709551615"})
        EXPECT_EQ(failure("{\"cmd\":\"hello\",\"protocol\":" + std::string(protocol) + "}"),
                  "protocol: the helper speaks protocol 1, not " + std::string(protocol) +
                      ": install the Corvelle helper that comes with this add-on");
}

TEST_F(LineLoop, SessionsAreFoundByTheirWholeNumber) {
    state.sessions.emplace(1, std::make_unique<HelperSession>(1));
    const auto asked = [&](const char* session) {
        try {
            return "session " +
                   std::to_string(sessionOf(state, {{"session", Json::parse(session)}}).number);
        } catch (const RequestError& error) {
            return error.code() + ": " + error.what();
        }
    };
    EXPECT_EQ(asked("1"), "session 1");
    EXPECT_EQ(asked("null"), "bad_request: missing \"session\"");
    for (const char* bad : {"1.0", "\"1\"", "true", "[1]"})
        EXPECT_EQ(asked(bad), "bad_request: \"session\" must be a session's number");
    for (const char* other : {"999", "0", "-1", "4294967297", "-4294967295", "18446744073709551615",
                              "9223372036854775809"})
        EXPECT_EQ(asked(other), "no_session: no session " + std::string(other));
}

TEST_F(LineLoop, EveryCommandThatNeedsASessionAsksForItFirst) {
    std::set<std::string_view> names;
    for (const Command& command : commandTable()) {
        EXPECT_TRUE(names.insert(command.name).second) << command.name << " stands twice";
        const std::string line = Json{{"cmd", command.name}}.dump();
        if (command.needsSession) {
            EXPECT_EQ(failure(line), "bad_request: missing \"session\"") << command.name;
        } else if (!command.handler) {
            EXPECT_EQ(failure(line), "unsupported: this helper does not offer '" +
                                         std::string(command.name) + "' yet");
        }
    }
    EXPECT_EQ(names.size(), 61u);
}

TEST_F(LineLoop, RunsUntilShutdownOrTheEndAndServesALastLineWithoutLf) {
    const auto run = [&](const std::string& input) {
        std::istringstream in(input);
        std::FILE* replies = std::tmpfile();
        runLineLoop(in, replies, state);
        std::string text(static_cast<std::size_t>(std::ftell(replies)), '\0');
        std::rewind(replies);
        EXPECT_EQ(std::fread(text.data(), 1, text.size(), replies), text.size());
        std::fclose(replies);
        return text;
    };
    EXPECT_EQ(run(""), "");
    EXPECT_EQ(run("\n\r\n{\"cmd\":\"ping\"}\r\n{\"cmd\":\"ping\",\"id\":2}"),
              "{\"id\":null,\"ok\":true,\"result\":{\"pong\":true}}\n"
              "{\"id\":2,\"ok\":true,\"result\":{\"pong\":true}}\n");
    EXPECT_FALSE(state.shutdownRequested);
    EXPECT_EQ(run("{\"cmd\":\"shutdown\"}\n{\"cmd\":\"ping\"}\n"),
              "{\"id\":null,\"ok\":true,\"result\":{\"bye\":true}}\n");
    EXPECT_EQ(run("{\"cmd\":\"ping\"}\n"), "") << "the flag is looked at before the first read";
}

TEST_F(LineLoop, AnswersEveryMangledLine) {
    // Valid lines with bytes changed, dropped and doubled: each has one well-formed reply or none.
    std::vector<std::string> lines;
    for (const Command& command : commandTable()) {
        if (command.name == "shutdown") continue;
        lines.push_back(Json{{"cmd", command.name},
                             {"id", lines.size()},
                             {"session", 1},
                             {"points", {{"shm", "corvelle_x"}, {"shape", {3, 3}}}}}
                            .dump());
    }
    std::mt19937 random(11);
    std::size_t refused = 0;
    for (int round = 0; round < 5000; ++round) {
        std::string line = lines[random() % lines.size()];
        for (auto edits = random() % 4; edits > 0; --edits) {
            const std::size_t at = random() % line.size();
            switch (random() % 3) {
                case 0:
                    line[at] = static_cast<char>(random());
                    break;
                case 1:
                    line.erase(at, random() % 8);
                    break;
                default:
                    line.insert(at, line.substr(random() % line.size(), random() % 30));
                    break;
            }
            if (line.empty()) line = " ";
        }
        const std::optional<std::string> reply = answerLine(state, line);
        if (!reply) continue;
        ASSERT_TRUE(Json::accept(*reply)) << line;
        refused += *reply ==
                   "{\"error\":{\"code\":\"bad_request\",\"message\":\"not a JSON line\"},"
                   "\"id\":null,\"ok\":false}\n";
    }
    EXPECT_GT(refused, 500u) << "too few broken lines to prove anything";
}

}  // namespace
}  // namespace corvelle
