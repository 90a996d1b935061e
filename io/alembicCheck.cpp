#include "io/alembicCheck.h"

#include <cstring>
#include <optional>
#include <unordered_set>

#include "io/ogawaFile.h"

namespace corvelle {

namespace {

constexpr std::size_t kDeepest = 256;        ///< objects in objects, compounds in compounds
constexpr std::size_t kHashBytes = 32;       ///< behind the headers of child objects
constexpr std::size_t kKeyBytes = 16;        ///< before the values of a sample
constexpr std::uint8_t kOwnMetaData = 0xff;  ///< the index that says: it follows

/// Bytes of each type, by its number; 0 for texts, whose lengths vary.
constexpr std::size_t kTypeBytes[] = {1, 1, 1, 2, 2, 4, 4, 8, 8, 2, 4, 8, 0, 0};

/// Reads a run of bytes; what lies past its end is nothing.
class Bytes {
public:
    explicit Bytes(std::string bytes) : bytes_(std::move(bytes)) {}
    bool atEnd() const { return at_ >= bytes_.size(); }
    template <class T>
    std::optional<T> take() {
        if (bytes_.size() - at_ < sizeof(T)) return std::nullopt;
        T value;
        std::memcpy(&value, bytes_.data() + at_, sizeof(T));
        at_ += sizeof(T);
        return value;
    }
    /// A number of 1, 2 or 4 bytes.
    std::optional<std::uint32_t> takeSized(unsigned hint) {
        if (hint == 0) return take<std::uint8_t>();
        if (hint == 1) return take<std::uint16_t>();
        return take<std::uint32_t>();
    }
    bool skip(std::uint64_t count) {
        if (count > bytes_.size() - at_) return false;
        at_ += std::size_t(count);
        return true;
    }

private:
    std::string bytes_;
    std::size_t at_ = 0;
};

class Checker {
public:
    explicit Checker(std::istream& in) : file_(in) {}

    std::string run() {
        if (std::string fault = file_.check(); !fault.empty()) return fault;
        // Version of the file, of the library, objects, meta data, times, shared meta data.
        const OgawaFile::Group root = file_.group(file_.root());
        if (root.size() < 6 || !root[0].isData() || !root[1].isData() || !root[2].isGroup() ||
            !root[3].isData() || !root[4].isData() || !root[5].isData() ||
            file_.dataSize(root[0]) != 4 || file_.dataSize(root[1]) != 4)
            return "broken archive";
        Bytes times(file_.data(root[4]));
        while (!times.atEnd()) {  // most samples, seconds a cycle, times in a cycle
            const auto most = times.take<std::uint32_t>();
            const auto cycle = times.take<double>();
            const auto count = times.take<std::uint32_t>();
            if (!most || !cycle || !count || *count == 0 || !times.skip(std::uint64_t(*count) * 8))
                return "broken time samplings";
            ++timeSamplings_;
        }
        Bytes shared(file_.data(root[5]));
        metaData_ = 1;  // number 0 is empty
        while (!shared.atEnd()) {
            const auto size = shared.take<std::uint8_t>();
            if (!size || !shared.skip(*size)) return "broken meta data";
            ++metaData_;
        }
        return checkObject(root[2], 0) ? "" : fault_;
    }

private:
    bool fail(const char* what) {
        fault_ = what;
        return false;
    }
    /// Groups that are shared are looked at once.
    bool isNew(OgawaFile::Reference reference) {
        return reference.position() == 0 || seen_.insert(reference.position()).second;
    }

    bool checkObject(OgawaFile::Reference reference, std::size_t depth) {
        if (depth > kDeepest) return fail("objects nested too deep");
        if (!isNew(reference)) return true;
        // Properties, children, the children's headers.
        const OgawaFile::Group group = file_.group(reference);
        if (group.empty() || !group.front().isGroup() || !group.back().isData() || group.size() < 2)
            return fail("broken object");
        std::string bytes = file_.data(group.back());
        bytes.resize(bytes.size() < kHashBytes ? 0 : bytes.size() - kHashBytes);
        Bytes headers(std::move(bytes));
        std::size_t children = 0;
        for (; !headers.atEnd(); ++children) {
            const auto size = headers.take<std::uint32_t>();
            if (!size || *size == 0 || !headers.skip(*size)) return fail("broken object header");
            const auto index = headers.take<std::uint8_t>();
            if (!index) return fail("broken object header");
            if (*index == kOwnMetaData) {
                const auto own = headers.take<std::uint32_t>();
                if (!own || !headers.skip(*own)) return fail("broken object header");
            } else if (*index >= metaData_) {
                return fail("broken object header");
            }
        }
        if (group.size() != children + 2) return fail("objects are missing");
        if (!checkCompound(group.front(), 0)) return false;
        for (std::size_t i = 1; i <= children; ++i)
            if (!group[i].isGroup() || !checkObject(group[i], depth + 1))
                return fault_.empty() ? fail("broken object") : false;
        return true;
    }

    bool checkCompound(OgawaFile::Reference reference, std::size_t depth) {
        if (depth > kDeepest) return fail("properties nested too deep");
        if (!isNew(reference)) return true;
        const OgawaFile::Group group = file_.group(reference);
        if (group.empty()) return true;
        if (!group.back().isData()) return fail("broken properties");
        Bytes headers(file_.data(group.back()));
        std::size_t property = 0;
        for (; !headers.atEnd(); ++property) {
            if (property + 1 >= group.size() || !group[property].isGroup())
                return fail("properties are missing");
            if (!checkProperty(headers, group[property], depth)) return false;
        }
        return property + 1 == group.size() || fail("properties are missing");
    }

    bool checkProperty(Bytes& headers, OgawaFile::Reference reference, std::size_t depth) {
        const auto info = headers.take<std::uint32_t>();
        if (!info) return fail("broken property header");
        const unsigned kind = *info & 3, hint = *info >> 2 & 3;
        const std::size_t type = *info >> 4 & 15, extent = *info >> 12 & 255;
        std::uint64_t samples = 0, first = 1, last = 0;
        if (kind != 0) {
            const auto count = headers.takeSized(hint);
            if (!count) return fail("broken property header");
            samples = *count;
            last = samples - 1;
            if (*info & 0x200) {
                const auto from = headers.takeSized(hint), to = headers.takeSized(hint);
                if (!from || !to) return fail("broken property header");
                first = *from;
                last = *to;
            } else if (*info & 0x800) {
                first = last = 0;
            }
            if (*info & 0x100) {
                const auto times = headers.takeSized(hint);
                if (!times || *times >= timeSamplings_) return fail("broken property header");
            }
        }
        const auto size = headers.takeSized(hint);
        if (!size || *size == 0 || !headers.skip(*size)) return fail("broken property header");
        if (const unsigned index = *info >> 20 & 255; index == kOwnMetaData) {
            const auto own = headers.takeSized(hint);
            if (!own || !headers.skip(*own)) return fail("broken property header");
        } else if (index >= metaData_) {
            return fail("broken property header");
        }
        if (kind == 0) return checkCompound(reference, depth + 1);
        if (type >= std::size(kTypeBytes) || extent == 0) return fail("broken property header");

        // Samples that repeat the first or the last are stored once.
        const bool constant = first == 0 && last == 0;
        if (samples > 0 && !constant && (first == 0 || last >= samples || last + 1 < first))
            return fail("broken property header");
        const std::uint64_t stored = samples == 0 ? 0 : constant ? 1 : last + 2 - first;
        const OgawaFile::Group group = file_.group(reference);
        const bool array = kind != 1;
        if (group.size() != (array ? 2 : 1) * stored) return fail("samples are missing");
        for (std::size_t i = 0; i < group.size(); i += array ? 2 : 1) {
            if (!group[i].isData() || (array && !group[i + 1].isData()))
                return fail("broken sample");
            if (!checkSample(group, i, array, kTypeBytes[type] * extent)) return false;
        }
        return true;
    }

    bool checkSample(const OgawaFile::Group& group, std::size_t i, bool array, std::size_t each) {
        const std::uint64_t size = file_.dataSize(group[i]);
        if (size != 0 && size < kKeyBytes) return fail("broken sample");
        const std::uint64_t values = size == 0 ? 0 : size - kKeyBytes;
        if (!array) return each == 0 || values == each || fail("broken sample");
        const std::uint64_t dimensions = file_.dataSize(group[i + 1]);
        if (dimensions == 0) return each == 0 || values % each == 0 || fail("broken sample");
        if (dimensions % 8 != 0 || dimensions > 64) return fail("broken sample");
        if (each == 0) return true;
        Bytes counts(file_.data(group[i + 1]));
        std::uint64_t total = 1;
        while (const auto count = counts.take<std::uint64_t>()) {
            if (*count != 0 && total > values / *count) return fail("broken sample");
            total *= *count;
        }
        return total * each == values || fail("broken sample");
    }

    OgawaFile file_;
    std::size_t timeSamplings_ = 0, metaData_ = 0;
    std::unordered_set<std::uint64_t> seen_;
    std::string fault_;
};

}  // namespace

std::string alembicFault(std::istream& in) { return Checker(in).run(); }

}  // namespace corvelle
