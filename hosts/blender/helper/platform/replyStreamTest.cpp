#include "hosts/blender/helper/platform/replyStream.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <sys/wait.h>
#include <unistd.h>

namespace corvelle {
namespace {

std::string readAll(int from) {
    std::string text;
    char part[256];
    for (ssize_t got = 0; (got = read(from, part, sizeof part)) > 0;)
        text.append(part, std::size_t(got));
    close(from);
    return text;
}

struct Outputs {
    std::string out, err;
    int exitCode = -1;
};

// Runs `body` in a child whose two outputs are pipes; a closed one is not there at all.
template <class Body>
Outputs inChild(bool withOut, bool withErr, const Body& body) {
    std::array<int, 2> out{}, err{};
    EXPECT_EQ(pipe(out.data()) | pipe(err.data()), 0);
    std::fflush(nullptr);  // what is buffered is the parent's to write, not the child's
    const pid_t child = fork();
    if (child == 0) {
        withOut ? dup2(out[1], STDOUT_FILENO) : close(STDOUT_FILENO);
        withErr ? dup2(err[1], STDERR_FILENO) : close(STDERR_FILENO);
        for (const int end : {out[0], out[1], err[0], err[1]}) close(end);
        _exit(body());
    }
    close(out[1]);
    close(err[1]);
    Outputs outputs{.out = readAll(out[0]), .err = readAll(err[0])};
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status)) outputs.exitCode = WEXITSTATUS(status);
    return outputs;
}

// What a library might print, and what the process answers.
int printBoth() {
    std::FILE* replies = takeStandardOutput();
    if (!replies) return 1;
    std::printf("stray\n");
    std::fflush(stdout);
    const bool wrote = write(STDOUT_FILENO, "raw\n", 4) == 4;
    std::fputs("reply\n", replies);
    std::fflush(replies);
    return wrote ? 0 : 2;
}

TEST(ReplyStream, HoldsRepliesAloneWhileStrayOutputGoesToStandardError) {
    const Outputs outputs = inChild(true, true, printBoth);
    EXPECT_EQ(outputs.exitCode, 0);
    EXPECT_EQ(outputs.out, "reply\n");
    EXPECT_EQ(outputs.err, "stray\nraw\n");
}

TEST(ReplyStream, LosesStrayOutputWhereThereIsNoStandardError) {
    const Outputs outputs = inChild(true, false, printBoth);
    EXPECT_EQ(outputs.exitCode, 0);
    EXPECT_EQ(outputs.out, "reply\n");
}

TEST(ReplyStream, CannotBeTakenFromAClosedOutput) {
    EXPECT_EQ(inChild(false, true, printBoth).exitCode, 1);
}

}  // namespace
}  // namespace corvelle
#endif
