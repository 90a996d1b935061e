#include "io/ogawaCheck.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <unordered_map>
#include <vector>

namespace corvelle {

namespace {

constexpr std::uint64_t kDataBit = std::uint64_t(1) << 63;
constexpr std::uint64_t kHeaderBytes = 16;
constexpr std::size_t kDeepest = 1024;  ///< groups in groups; a hierarchy has two for each object

std::uint64_t littleEndian(const unsigned char* bytes) {
    std::uint64_t value = 0;
    for (int i = 7; i >= 0; --i) value = value << 8 | bytes[i];
    return value;
}

class Walk {
public:
    Walk(std::istream& in, std::uint64_t size) : in_(in), size_(size) {}

    std::string run(std::uint64_t root) {
        std::vector<Frame> stack;
        if (std::string fault = enter(root, stack); !fault.empty()) return fault;
        while (!stack.empty()) {
            Frame& top = stack.back();
            if (top.next == top.references.size()) {
                states_[top.position] = State::Done;
                stack.pop_back();
                continue;
            }
            const std::uint64_t reference = top.references[top.next++];
            const std::uint64_t position = reference & ~kDataBit;
            if (position == 0) continue;  // an empty group or empty data
            std::string fault = reference & kDataBit ? checkData(position) : enter(position, stack);
            if (!fault.empty()) return fault;
        }
        return {};
    }

private:
    enum class State { Open, Done };
    struct Frame {
        std::uint64_t position;
        std::vector<std::uint64_t> references;
        std::size_t next = 0;
    };

    bool read(std::uint64_t position, void* to, std::uint64_t bytes) {
        if (position > size_ || bytes > size_ - position) return false;
        in_.clear();
        in_.seekg(std::streamoff(position));
        in_.read(static_cast<char*>(to), std::streamsize(bytes));
        return bool(in_);
    }
    /// The number that a group or a run of bytes begins with.
    bool readCount(std::uint64_t position, std::uint64_t& count) {
        unsigned char bytes[8];
        if (position < kHeaderBytes || !read(position, bytes, sizeof bytes)) return false;
        count = littleEndian(bytes);
        return true;
    }

    std::string checkData(std::uint64_t position) {
        std::uint64_t bytes = 0;
        if (!readCount(position, bytes)) return "data outside of the file";
        if (bytes > size_ - position - 8) return "data longer than the file";
        return {};
    }

    std::string enter(std::uint64_t position, std::vector<Frame>& stack) {
        const auto [state, fresh] = states_.try_emplace(position, State::Open);
        if (!fresh) return state->second == State::Open ? "a group holds itself" : "";
        if (stack.size() == kDeepest) return "groups nested deeper than " + std::to_string(kDeepest);
        std::uint64_t count = 0;
        if (!readCount(position, count)) return "a group outside of the file";
        if (count > (size_ - position - 8) / 8) return "a group longer than the file";
        seen_ += count;
        if (seen_ > size_ / 8) return "groups that overlap";
        std::vector<unsigned char> bytes(std::size_t(count) * 8);
        if (count != 0 && !read(position + 8, bytes.data(), bytes.size()))
            return "a group outside of the file";
        Frame frame{position, std::vector<std::uint64_t>(std::size_t(count))};
        for (std::size_t i = 0; i < frame.references.size(); ++i)
            frame.references[i] = littleEndian(&bytes[8 * i]);
        stack.push_back(std::move(frame));
        return {};
    }

    std::istream& in_;
    std::uint64_t size_;
    std::uint64_t seen_ = 0;  ///< references so far
    std::unordered_map<std::uint64_t, State> states_;
};

}  // namespace

std::string ogawaFault(std::istream& in) {
    in.clear();
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    unsigned char head[kHeaderBytes] = {};
    in.seekg(0);
    in.read(reinterpret_cast<char*>(head), sizeof head);
    if (!in || size < std::streamoff(kHeaderBytes) || std::memcmp(head, "Ogawa", 5) != 0)
        return "not an Alembic file";
    if (head[5] != 0xff) return "the file is not whole: its writer did not finish";
    const std::uint64_t root = littleEndian(head + 8);
    if (root == 0 || root & kDataBit) return "the file has no contents";
    return Walk(in, std::uint64_t(size)).run(root);
}

}  // namespace corvelle
