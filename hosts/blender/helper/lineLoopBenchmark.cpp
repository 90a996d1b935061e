// From a request's line to its reply through two pipes, against a process that sends every line
// back as it came. The difference is what this process adds to a `ping`.
#if !defined(_WIN32)
#include <array>
#include <cstdio>
#include <iostream>
#include <string>

#include <benchmark/benchmark.h>
#include <sys/wait.h>
#include <unistd.h>

#include "hosts/blender/helper/lineLoop.h"

namespace corvelle {
namespace {

// A child that serves its pipes until they close.
class Peer {
public:
    explicit Peer(void (*serve)(std::FILE* replies)) {
        std::array<int, 2> down{}, up{};
        if (pipe(down.data()) != 0 || pipe(up.data()) != 0) return;
        child_ = fork();
        if (child_ == 0) {
            dup2(down[0], STDIN_FILENO);
            for (const int end : {down[0], down[1], up[0]}) close(end);
            serve(fdopen(up[1], "wb"));
            _exit(0);
        }
        close(down[0]);
        close(up[1]);
        requests_ = down[1];
        replies_ = up[0];
    }
    ~Peer() {
        close(requests_);
        close(replies_);
        waitpid(child_, nullptr, 0);
    }
    std::string ask(const std::string& line) const {
        if (write(requests_, line.data(), line.size()) != ssize_t(line.size())) return {};
        std::string reply;
        char part[4096];
        while (!reply.ends_with('\n')) {
            const ssize_t got = read(replies_, part, sizeof part);
            if (got <= 0) return {};
            reply.append(part, std::size_t(got));
        }
        return reply;
    }

private:
    pid_t child_ = -1;
    int requests_ = -1, replies_ = -1;
};

void serveEcho(std::FILE* replies) {
    char part[4096];
    for (ssize_t got = 0; (got = read(STDIN_FILENO, part, sizeof part)) > 0;)
        if (write(fileno(replies), part, std::size_t(got)) != got) return;
}

void serveRequests(std::FILE* replies) {
    std::ios::sync_with_stdio(false);
    HelperState state;
    runLineLoop(std::cin, replies, state);
}

template <auto Serve>
void timeRoundTrip(benchmark::State& state) {
    const Peer peer(Serve);
    const std::string line = "{\"id\":1,\"cmd\":\"ping\"}\n";
    if (peer.ask(line).empty()) return state.SkipWithError("no reply");
    for (auto _ : state) benchmark::DoNotOptimize(peer.ask(line));
}
BENCHMARK(timeRoundTrip<serveEcho>)->Name("ping/baseline echo")->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(timeRoundTrip<serveRequests>)->Name("ping/line loop")->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace corvelle
#endif
