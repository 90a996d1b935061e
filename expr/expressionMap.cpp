#include "expr/expressionMap.h"

#include <atomic>
#include <bit>
#include <list>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "expr/expressionLexer.h"
#include "expr/expressionParser.h"
#include "expr/expressionProgram.h"

namespace corvelle {

namespace {

std::uint64_t nextNumber() {
    static std::atomic<std::uint64_t> last{0};
    return ++last;
}

/// The newest compiled texts. Programs alone: what they find in maps belongs to a groom.
class CompileCache {
public:
    static CompileCache& instance() {
        static auto* cache = new CompileCache;  // used by threads until exit
        return *cache;
    }

    struct Entry {
        std::string key;
        std::shared_ptr<const ExpressionProgram> program;
        ExpressionPtr whole;  ///< for a text without maps: the very same map each time
    };

    bool find(const std::string& key, Entry& entry) {
        const std::lock_guard lock(mutex_);
        const auto found = index_.find(key);
        if (found == index_.end()) return false;
        entries_.splice(entries_.begin(), entries_, found->second);
        entry = *found->second;
        return true;
    }

    void insert(Entry entry) {
        if (entry.key.size() > kMaxText || entry.program->operations.size() > kMaxOperations)
            return;
        const std::lock_guard lock(mutex_);
        if (index_.contains(entry.key)) return;
        entries_.push_front(std::move(entry));
        index_[entries_.front().key] = entries_.begin();
        if (entries_.size() <= kMaxEntries) return;
        index_.erase(entries_.back().key);
        entries_.pop_back();
    }

private:
    static constexpr std::size_t kMaxEntries = 256;
    static constexpr std::size_t kMaxText = 16384;  // bytes
    static constexpr std::size_t kMaxOperations = 16384;

    std::mutex mutex_;
    std::list<Entry> entries_;  ///< newest use first
    std::unordered_map<std::string, std::list<Entry>::iterator> index_;
};

void appendBits(std::string& key, float value) {
    const auto bits = std::bit_cast<std::uint32_t>(value);
    for (unsigned shift = 0; shift < 32; shift += 8) key += char(bits >> shift & 0xff);
}

/// All that a program depends on, with no two meanings sharing a key.
std::string cacheKey(const std::string& text, const ExpressionEnvironment& environment,
                     bool perPointAllowed, ExpressionMap::Shape wanted) {
    std::string key;
    key += perPointAllowed ? 'p' : 's';
    key += wanted == ExpressionMap::Shape::Vector ? 'v' : 'n';
    if (text.find('$') != std::string::npos) {
        for (const auto& [name, value] : environment.variables) {
            const Vec3f* vector = std::get_if<Vec3f>(&value);
            key += name;
            key += '\0';
            key += vector ? 'v' : 'n';
            if (vector) {
                appendBits(key, vector->x);
                appendBits(key, vector->y);
                appendBits(key, vector->z);
            } else {
                appendBits(key, std::get<float>(value));
            }
        }
    }
    key += '\n';
    return key += text;
}

}  // namespace

ExpressionMap::ExpressionMap(std::string text, const ExpressionEnvironment& environment,
                             bool perPointAllowed, Shape wanted)
    : ExpressionMap(parseExpression(std::move(text), environment, perPointAllowed, wanted),
                    environment) {}

ExpressionMap::ExpressionMap(std::shared_ptr<const ExpressionProgram> program,
                             const ExpressionEnvironment& environment)
    : program_(std::move(program)), number_(nextNumber()) {
    maps_.reserve(program_->maps.size());
    for (const ExpressionProgram::MapUse& use : program_->maps) {
        NamedMapPtr map;
        try {
            if (environment.findMap) map = environment.findMap(use.name);
        } catch (const ExpressionError& unfit) {
            throw expressionErrorAt(program_->text, use.offset, unfit.what());
        }
        if (!map)
            throw expressionErrorAt(
                program_->text, use.offset,
                "no map named '" + use.name + "' (Groom Tools > Paint lists them)");
        maps_.push_back(std::move(map));
    }
}

ExpressionMap::~ExpressionMap() = default;

const std::string& ExpressionMap::text() const { return program_->text; }
bool ExpressionMap::isVector() const { return program_->vector; }
bool ExpressionMap::perPoint() const { return program_->perPoint(); }
bool ExpressionMap::readsStrands() const {
    return (program_->variables & kStrandVariables) != 0 || program_->readsIds ||
           !program_->channels.empty();
}
bool ExpressionMap::readsWholeSet() const {
    return (program_->variables & variableBit(ExpressionVariable::Longest)) != 0;
}
bool ExpressionMap::readsTime() const { return (program_->variables & kTimeVariables) != 0; }
bool ExpressionMap::readsMaps() const { return !maps_.empty(); }
std::span<const std::string> ExpressionMap::channelNames() const { return program_->channels; }
std::uint64_t ExpressionMap::number() const { return number_; }

ExpressionPtr compileExpression(const std::string& text, const ExpressionEnvironment& environment,
                                bool perPointAllowed, ExpressionMap::Shape wanted) {
    CompileCache& cache = CompileCache::instance();
    CompileCache::Entry entry;
    entry.key = cacheKey(text, environment, perPointAllowed, wanted);
    const std::string key = entry.key;
    const bool found = cache.find(key, entry);
    if (found && entry.whole) return entry.whole;
    if (!found) entry.program = parseExpression(text, environment, perPointAllowed, wanted);
    const ExpressionPtr map(new ExpressionMap(entry.program, environment));
    if (!found) {
        if (!map->readsMaps()) entry.whole = map;
        cache.insert(std::move(entry));
    }
    return map;
}

}  // namespace corvelle
