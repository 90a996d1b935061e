#include <filesystem>
#include <functional>
#include <random>
#include <vector>

#include <gmock/gmock.h>

#include "model/fileReplace.h"
#include "model/testing/tempFolder.h"
#include "model/utf8Path.h"

#if !defined(_WIN32)
#include <csignal>

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace corvelle {
namespace {

using testing::StartsWith;

/// Steps fail while this lives: `fails` is told the step and how many came before it.
struct Faults {
    explicit Faults(std::function<bool(FileStep, int)> fails) {
        setFileFault([fails, count = 0](FileStep step) mutable {
            return fails(step, count++) ? std::make_error_code(std::errc::io_error)
                                        : std::error_code();
        });
    }
    ~Faults() { setFileFault({}); }
};

class FileReplace : public testing::Test {
protected:
    FileReplace() { replaceFile(path, before); }

    std::vector<std::string> namesInFolder() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(utf8Path(folder.path())))
            names.push_back(utf8Text(entry.path().filename()));
        return names;
    }
    std::string failure(const std::string& at, const std::string& bytes) const {
        try {
            replaceFile(at, bytes);
        } catch (const FileError& error) {
            EXPECT_TRUE(error.cause) << "no reason in: " << error.what();
            return error.what();
        }
        return "";
    }

    TempFolder folder;
    const std::string path = folder.file("hår.groom");
    const std::string before = "the old file";
    const std::string after = std::string(5'000'000, 'n');  // several writes
};

TEST_F(FileReplace, JoinsThePieces) {
    const std::vector<std::string_view> pieces = {"one", "", " two", after};
    replaceFile(path, pieces);
    EXPECT_EQ(readWholeFile(path), "one two" + after);
    replaceFile(path, std::span<const std::string_view>());
    EXPECT_EQ(readWholeFile(path), "");
    EXPECT_EQ(namesInFolder(), std::vector<std::string>{"hår.groom"});
}

TEST_F(FileReplace, KeepsTheOldFileWhicheverStepFails) {
    struct Case {
        FileStep step;
        std::string text;
    };
    const std::string cannotWrite = "cannot write '" + path + "'";
    const std::vector<Case> cases = {{FileStep::Open, cannotWrite},
                                     {FileStep::Write, cannotWrite},
                                     {FileStep::Flush, cannotWrite},
                                     {FileStep::Close, cannotWrite},
                                     {FileStep::Rename, "cannot replace '" + path + "': "}};
    for (const Case& c : cases) {
        const Faults faults([&](FileStep step, int) { return step == c.step; });
        EXPECT_THAT(failure(path, after), StartsWith(c.text));
        EXPECT_EQ(readWholeFile(path), before);
        EXPECT_EQ(namesInFolder().size(), 1u) << int(c.step);
    }
    const Faults folderFails([](FileStep step, int) { return step == FileStep::FlushFolder; });
    EXPECT_EQ(failure(path, after), cannotWrite);
    EXPECT_EQ(readWholeFile(path), after);
}

TEST_F(FileReplace, FailsInWordsThatNameThePath) {
    EXPECT_EQ(failure(folder.path() + "/none/a.groom", after),
              "cannot write '" + folder.path() + "/none/a.groom'");
    EXPECT_EQ(failure(folder.path(), after), "cannot write '" + folder.path() + "'") << "a folder";
    EXPECT_EQ(failure("", after), "cannot write ''");
    for (const std::string& bad : {folder.path(), folder.path() + "/none"}) {
        try {
            readWholeFile(bad);
            ADD_FAILURE() << bad;
        } catch (const FileError& error) {
            EXPECT_EQ(error.what(), "cannot read '" + bad + "'");
        }
    }
}

#if !defined(_WIN32)

/// Runs `work` in a child process; its exit code, or minus the signal that ended it.
int inChild(const std::function<int()>& work) {
    const pid_t child = fork();
    if (child == 0) {
        int code = 99;
        try {
            code = work();
        } catch (...) {
        }
        _exit(code);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

TEST_F(FileReplace, LeavesAWholeFileWhenKilledBeforeAnyStep) {
    int killed = 0;
    for (int moment = 0; moment < 40; ++moment) {
        const int end = inChild([&] {
            setFileFault([count = 0, moment](FileStep) mutable {
                if (count++ == moment) std::raise(SIGKILL);
                return std::error_code();
            });
            replaceFile(path, after);
            return 0;
        });
        killed += end == -SIGKILL;
        const std::string now = readWholeFile(path);
        EXPECT_TRUE(now == (end == 0 ? after : before) || (end == -SIGKILL && now == after))
            << moment;
        replaceFile(path, before);
        EXPECT_EQ(namesInFolder().size(), 1u) << "a stray file after moment " << moment;
    }
    EXPECT_GE(killed, 9) << "open, five writes, flush, close, rename, folder";
}

TEST_F(FileReplace, KeepsTheOldFileWhenTheDiskIsFull) {
    const int end = inChild([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{2'500'000, 2'500'000};
        setrlimit(RLIMIT_FSIZE, &limit);
        return failure(path, after) == "cannot write '" + path + "'" ? 7 : 8;
    });
    EXPECT_EQ(end, 7);
    EXPECT_EQ(readWholeFile(path), before);
    EXPECT_EQ(namesInFolder().size(), 1u);
}

TEST_F(FileReplace, KeepsTheOldFileInAReadOnlyFolder) {
    chmod(folder.path().c_str(), 0555);
    const int end = inChild([&] {
        if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) return 9;
        return failure(path, after) == "cannot write '" + path + "'" ? 7 : 8;
    });
    chmod(folder.path().c_str(), 0755);
    EXPECT_EQ(end, 7);
    EXPECT_EQ(readWholeFile(path), before);
    EXPECT_EQ(namesInFolder().size(), 1u);
}

TEST_F(FileReplace, PassesThePermissionsOn) {
    chmod(path.c_str(), 0640);
    replaceFile(path, after);
    struct stat now {};
    ASSERT_EQ(stat(path.c_str(), &now), 0);
    EXPECT_EQ(now.st_mode & 0777, 0640u);
}

TEST_F(FileReplace, RefusesToRenameADeviceAway) {
    EXPECT_EQ(failure("/dev/null", after), "cannot write '/dev/null'");
    struct stat now {};
    ASSERT_EQ(stat("/dev/null", &now), 0);
    EXPECT_TRUE(S_ISCHR(now.st_mode));
}

#endif

}  // namespace
}  // namespace corvelle
