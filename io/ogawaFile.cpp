#include "io/ogawaFile.h"

#include <cstring>
#include <unordered_map>

namespace corvelle {

namespace {

constexpr std::uint64_t kHeaderBytes = 16;
constexpr std::size_t kDeepest = 1024;  ///< groups in groups; an object has two for its properties

}  // namespace

bool OgawaFile::read(std::uint64_t position, void* to, std::uint64_t bytes) {
    if (position > size_ || bytes > size_ - position) return false;
    in_.clear();
    in_.seekg(std::streamoff(position));
    in_.read(static_cast<char*>(to), std::streamsize(bytes));
    return bool(in_);
}

/// The number that a group or a run of bytes begins with.
bool OgawaFile::readCount(std::uint64_t position, std::uint64_t& count) {
    return position >= kHeaderBytes && read(position, &count, sizeof count);
}

std::string OgawaFile::check() {
    in_.clear();
    in_.seekg(0, std::ios::end);
    const std::streamoff size = in_.tellg();
    unsigned char head[kHeaderBytes] = {};
    in_.seekg(0);
    in_.read(reinterpret_cast<char*>(head), sizeof head);
    if (!in_ || size < std::streamoff(kHeaderBytes) || std::memcmp(head, "Ogawa", 5) != 0)
        return "not an Alembic file";
    if (head[5] != 0xff) return "the file is not whole: its writer did not finish";
    size_ = std::uint64_t(size);
    std::memcpy(&root_.raw, head + 8, 8);
    if (root_.raw == 0 || root_.isData()) return "the file has no contents";

    enum class State { Open, Done };
    struct Step {
        std::uint64_t position;
        Group group;
        std::size_t next = 0;
    };
    std::unordered_map<std::uint64_t, State> states;
    std::vector<Step> stack;
    std::uint64_t seen = 0;  // references so far
    const auto enter = [&](Reference reference) -> std::string {
        const std::uint64_t position = reference.position();
        const auto [state, fresh] = states.try_emplace(position, State::Open);
        if (!fresh) return state->second == State::Open ? "a group holds itself" : "";
        if (stack.size() == kDeepest)
            return "groups nested deeper than " + std::to_string(kDeepest);
        std::uint64_t count = 0;
        if (!readCount(position, count)) return "a group outside of the file";
        if (count > (size_ - position - 8) / 8) return "a group longer than the file";
        seen += count;
        if (seen > size_ / 8) return "groups that overlap";
        stack.push_back({position, group(reference)});
        return {};
    };
    if (std::string fault = enter(root_); !fault.empty()) return fault;
    while (!stack.empty()) {
        Step& top = stack.back();
        if (top.next == top.group.size()) {
            states[top.position] = State::Done;
            stack.pop_back();
            continue;
        }
        const Reference reference = top.group[top.next++];
        if (reference.position() == 0) continue;
        if (reference.isGroup()) {
            if (std::string fault = enter(reference); !fault.empty()) return fault;
            continue;
        }
        std::uint64_t bytes = 0;
        if (!readCount(reference.position(), bytes)) return "data outside of the file";
        if (bytes > size_ - reference.position() - 8) return "data longer than the file";
    }
    return {};
}

OgawaFile::Group OgawaFile::group(Reference reference) {
    Group out;
    std::uint64_t count = 0;
    if (reference.position() == 0 || !readCount(reference.position(), count)) return out;
    out.resize(std::size_t(count));
    static_assert(sizeof(Reference) == 8);
    if (count > 0 && !read(reference.position() + 8, out.data(), 8 * count)) out.clear();
    return out;
}

std::uint64_t OgawaFile::dataSize(Reference reference) {
    std::uint64_t bytes = 0;
    if (reference.position() == 0 || !readCount(reference.position(), bytes)) return 0;
    return bytes;
}

std::string OgawaFile::data(Reference reference) {
    std::string out(std::size_t(dataSize(reference)), '\0');
    if (!out.empty() && !read(reference.position() + 8, out.data(), out.size())) out.clear();
    return out;
}

}  // namespace corvelle
