#include <array>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>

#include "hosts/blender/helper/platform/processStart.h"
#include "hosts/blender/helper/sharedRegion.h"

#if !defined(_WIN32)
#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

namespace corvelle {
namespace {

std::string failureOf(const std::function<void()>& act) {
    try {
        act();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

std::vector<std::byte> pattern(std::size_t size) {
    std::vector<std::byte> bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::byte>(i * 31 + 7);
    return bytes;
}

TEST(SharedRegion, IsReadByAnotherAsItWasWritten) {
    const std::vector<std::byte> data = pattern(10'000);
    const std::string name = regionName("regionTest", 1);
    const SharedRegion made = SharedRegion::create(name, data.size());
    EXPECT_TRUE(made.owner());
    EXPECT_EQ(made.size(), data.size());
    std::memcpy(made.bytes().data(), data.data(), data.size());

    const SharedRegion opened = SharedRegion::open(name);
    EXPECT_FALSE(opened.owner());
    EXPECT_TRUE(opened.bytes().empty()) << "an opened region is read by copy";
    EXPECT_EQ(opened.size() % 4096, 0u) << "whole pages";
    EXPECT_GE(opened.size(), data.size());
    std::vector<std::byte> read(5000);
    opened.read(123, read);
    EXPECT_EQ(std::memcmp(read.data(), data.data() + 123, read.size()), 0);
}

TEST(SharedRegion, ReadsZerosBehindItsEndWithinTheLastPage) {
    const std::string name = regionName("regionTest", 2);
    const SharedRegion made = SharedRegion::create(name, 0);  // counts as 1
    EXPECT_EQ(made.size(), 1u);
    made.bytes()[0] = std::byte{9};
    const SharedRegion opened = SharedRegion::open(name);
    std::vector<std::byte> read(opened.size(), std::byte{1});
    opened.read(0, read);
    EXPECT_EQ(read[0], std::byte{9});
    EXPECT_EQ(read[1], std::byte{0});
    EXPECT_EQ(read.back(), std::byte{0});
}

TEST(SharedRegion, GoesWithItsLastOwner) {
    const std::string name = regionName("regionTest", 3);
    SharedRegion kept;
    {
        SharedRegion made = SharedRegion::create(name, 100);
        EXPECT_EQ(failureOf([&] { SharedRegion::create(name, 100); }),
                  "shared memory '" + name + "' exists already");
        kept = std::move(made);
        EXPECT_FALSE(made);  // NOLINT(bugprone-use-after-move): a moved-from region is empty
    }
    EXPECT_EQ(failureOf([&] { SharedRegion::open(name); }), "") << "moved, not closed";
    kept = {};
    EXPECT_THAT(failureOf([&] { SharedRegion::open(name); }),
                testing::StartsWith("no shared memory named '" + name + "' ("));
    kept = SharedRegion::create(name, 100);  // the name is free again
    EXPECT_TRUE(kept);
}

TEST(SharedRegion, TakesNamesOfPlainCharactersAlone) {
    for (const std::string& bad : {std::string(), std::string(201, 'a'), std::string("a b"),
                                   std::string("é"), std::string("a\\b")}) {
        EXPECT_FALSE(isRegionName(bad)) << bad;
        EXPECT_EQ(failureOf([&] { SharedRegion::open(bad); }),
                  "bad shared memory name '" + bad + "'");
        EXPECT_EQ(failureOf([&] { SharedRegion::create(bad, 1); }),
                  "bad shared memory name '" + bad + "'");
    }
    EXPECT_FALSE(isRegionName(std::string_view("a\0b", 3)));
    EXPECT_TRUE(isRegionName(std::string(200, 'a')));
    EXPECT_TRUE(isRegionName("azAZ09-._"));
    EXPECT_EQ(regionName("s3strands", 7),
              "corvelle_" + std::to_string(processNumber()) + "_s3strands_7");
}

#if !defined(_WIN32)

TEST(SharedRegionPosix, DropsOneLeadingSlashOfANameAndTakesNoOther) {
    const std::string name = regionName("regionTest", 4);
    const SharedRegion made = SharedRegion::create(name, 10);
    EXPECT_EQ(SharedRegion::open("/" + name).size() % 4096, 0u);
    for (const char* bad : {"/", "//a", "a/b", "/a/b", "../etc", "/../a"})
        EXPECT_EQ(failureOf([&] { SharedRegion::open(bad); }),
                  "bad shared memory name '" + std::string(bad) + "'");
}

// A peer's region, made by hand so that a test can do to it what a peer might.
class PeerRegion {
public:
    PeerRegion(const char* base, off_t size) : name(regionName(base, 0)) {
        file_ = shm_open(("/" + name).c_str(), O_CREAT | O_RDWR, 0600);
        resize(size);
    }
    ~PeerRegion() {
        close(file_);
        shm_unlink(("/" + name).c_str());
    }
    void resize(off_t size) const { ASSERT_EQ(ftruncate(file_, size), 0); }

    const std::string name;

private:
    int file_ = -1;
};

TEST(SharedRegionPosix, ReadOfARegionThatShrinksIsAnErrorAndNoCrash) {
    const PeerRegion peer("regionPeer", 1 << 20);
    const SharedRegion opened = SharedRegion::open(peer.name);
    peer.resize(100);
    std::vector<std::byte> read(1 << 20);
    EXPECT_EQ(failureOf([&] { opened.read(0, read); }),
              "shared memory '" + peer.name + "' shrank while it was read");
}

TEST(SharedRegionPosix, OpensNothingThatIsNoMemory) {
    const PeerRegion empty("regionEmpty", 0);
    EXPECT_EQ(
        failureOf([&] { SharedRegion::open(empty.name); }),
        "cannot map shared memory '" + empty.name + "': system error " + std::to_string(EINVAL));

    // Opening a pipe for reading would wait for a writer that never comes.
    const std::string name = regionName("regionPipe", 0);
    const std::string path = "/dev/shm/" + name;
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(failureOf([&] { SharedRegion::open(name); }),
              "cannot map shared memory '" + name + "': system error " + std::to_string(ENODEV));
    unlink(path.c_str());
}

TEST(SharedRegionPosix, WriteToARegionThatAPeerTruncatedGoesNowhere) {
    const std::string name = regionName("regionTest", 5);
    SharedRegion made = SharedRegion::create(name, 1 << 20);
    std::memset(made.bytes().data(), 1, made.bytes().size());
    EXPECT_FALSE(made.damaged());
    const int peer = shm_open(("/" + name).c_str(), O_RDWR, 0);
    ASSERT_EQ(ftruncate(peer, 4096), 0);
    close(peer);
    std::memset(made.bytes().data(), 2, made.bytes().size());
    EXPECT_TRUE(made.damaged());
    EXPECT_EQ(made.bytes()[(1 << 20) - 1], std::byte{2});

    made = {};  // its place in the table is clean for the next one
    EXPECT_FALSE(SharedRegion::create(name, 1 << 20).damaged());
}

TEST(SharedRegionPosix, TooBigForTheSystemFailsWhenItIsMade) {
    const std::string name = regionName("regionTest", 6);
    for (const std::uint64_t size :
         {std::uint64_t{1} << 50, ~std::uint64_t{0} / 2, ~std::uint64_t{0}}) {
        EXPECT_THAT(failureOf([&] { SharedRegion::create(name, size); }),
                    testing::StartsWith("cannot make shared memory '" + name + "': system error "));
        EXPECT_THAT(failureOf([&] { SharedRegion::open(name); }),
                    testing::StartsWith("no shared memory named"));
    }
}

TEST(SharedRegionPosix, SweepTakesWhatTheDeadLeftAndNothingElse) {
    // A process that is over, read and gone; its number is not given out again so soon.
    const pid_t gone = fork();
    if (gone == 0) _exit(0);
    waitpid(gone, nullptr, 0);
    // One that is over but not read: a zombie.
    const pid_t zombie = fork();
    if (zombie == 0) _exit(0);
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(zombie), &info, WEXITED | WNOWAIT);

    const auto leave = [](const std::string& name) {
        close(shm_open(("/" + name).c_str(), O_CREAT | O_RDWR, 0600));
    };
    const auto isThere = [](const std::string& name) {
        return access(("/dev/shm/" + name).c_str(), F_OK) == 0;
    };
    const std::string pre = "corvelle_";
    const std::vector<std::string> dead = {pre + std::to_string(gone) + "_s1strands_1",
                                           pre + std::to_string(zombie) + "_s1guides_2",
                                           pre + std::to_string(processNumber()) + "_s1scalp_1"};
    const std::vector<std::string> alive = {pre + std::to_string(getppid()) + "_sweepTest_1",
                                            pre + std::to_string(gone) + "sweepTest",
                                            pre + "sweepTest_1", pre + "-5_sweepTest_1",
                                            "other_" + std::to_string(gone) + "_sweepTest_1"};
    for (const auto& names : {dead, alive})
        for (const std::string& name : names) leave(name);
    sweepDeadMappings();
    for (const std::string& name : dead) EXPECT_FALSE(isThere(name)) << name;
    for (const std::string& name : alive) {
        EXPECT_TRUE(isThere(name)) << name;
        shm_unlink(("/" + name).c_str());
    }
    waitpid(zombie, nullptr, 0);
}

TEST(SharedRegionPosix, LeavingProcessRemovesTheNamesItHolds) {
    const std::string name = regionName("regionTest", 7);
    const SharedRegion made = SharedRegion::create(name, 100);
    removeOwnMappings(std::chrono::milliseconds(100));
    EXPECT_NE(failureOf([&] { SharedRegion::open(name); }), "");
    EXPECT_EQ(made.size(), 100u) << "its memory stays until it closes";
}

TEST(ProcessPosix, RunsUntilItIsOver) {
    EXPECT_TRUE(processIsRunning(processNumber()));
    for (const std::int64_t number : {std::int64_t{0}, std::int64_t{-1}, std::int64_t{1} << 40})
        EXPECT_FALSE(processIsRunning(number)) << number;
}

#endif

}  // namespace
}  // namespace corvelle
