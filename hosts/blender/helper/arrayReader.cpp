#include "hosts/blender/helper/arrayReader.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <span>
#include <type_traits>
#include <utility>

#include "hosts/blender/helper/requestError.h"

namespace corvelle {
namespace {

static_assert(std::endian::native == std::endian::little, "array data is little-endian");
static_assert(std::numeric_limits<float>::is_iec559, "1e300 must narrow to an infinity");

constexpr std::size_t kChunkBytes = 64 * 1024;  // stays in the fast caches while it is converted

enum class Dtype { F4, F8, I4, U4, I8, U8 };

struct DtypeRow {
    std::string_view name;
    Dtype dtype;
    std::uint64_t bytes;
};
constexpr std::array<DtypeRow, 6> kDtypes = {{
    {"<f4", Dtype::F4, 4},
    {"<f8", Dtype::F8, 8},
    {"<i4", Dtype::I4, 4},
    {"<u4", Dtype::U4, 4},
    {"<i8", Dtype::I8, 8},
    {"<u8", Dtype::U8, 8},
}};

// What a reader makes of its numbers: 32-bit floats, 32-bit integers, or 64-bit IDs.
struct Floats {
    using Element = float;
};
struct Ints {
    using Element = std::int32_t;
};
struct Uints {
    using Element = std::uint32_t;
};
struct Ids {
    using Element = std::uint64_t;
};
template <class Kind>
constexpr bool kTakesFractions = std::is_same_v<Kind, Floats>;
template <class Kind>
constexpr bool kIsIds = std::is_same_v<Kind, Ids>;

[[noreturn]] void failArray(std::string_view label, std::string_view what) {
    failRequest("bad_request", std::string(label) + std::string(what));
}

[[noreturn]] void failNegativeId() {
    failRequest("bad_request", "a guide ID is a positive integer");
}

constexpr std::string_view kFraction = " holds a fraction where an integer goes";

// Cut towards zero; out of range gives the nearest end, NaN gives 0: all defined, all repeatable.
template <class To, class From>
To saturate(From value) {
    if (std::isnan(value)) return 0;
    constexpr auto kBelow = static_cast<double>(std::numeric_limits<To>::min());
    constexpr auto kAbove = static_cast<double>(std::numeric_limits<To>::max());
    if (static_cast<double>(value) <= kBelow) return std::numeric_limits<To>::min();
    if (static_cast<double>(value) >= kAbove) return std::numeric_limits<To>::max();
    return static_cast<To>(value);
}

template <class To, class From>
To convert(From value) {
    if constexpr (std::is_floating_point_v<From> && std::is_integral_v<To>)
        return saturate<To>(value);
    else
        return static_cast<To>(value);  // wide integers keep their low bits
}

// ---- JSON lists --------------------------------------------------------------------------------

template <class Kind>
void appendList(const Json& list, std::string_view label,
                std::vector<typename Kind::Element>& out) {
    using Element = typename Kind::Element;
    for (const Json& item : list) {
        if (item.is_array()) {
            appendList<Kind>(item, label, out);  // as deep as a line may nest: 512
        } else if (item.is_number_float()) {
            if constexpr (!kTakesFractions<Kind>)
                failArray(label, kFraction);
            else
                out.push_back(static_cast<Element>(item.get<double>()));
        } else if (item.is_number_unsigned()) {
            out.push_back(convert<Element>(item.get<std::uint64_t>()));
        } else if (item.is_number_integer()) {
            if constexpr (kIsIds<Kind>)
                if (item.get<std::int64_t>() < 0) failNegativeId();
            out.push_back(convert<Element>(item.get<std::int64_t>()));
        } else {
            failArray(label, " holds something that is not a number");
        }
    }
}

// ---- References --------------------------------------------------------------------------------

struct Reference {
    std::string name;
    const DtypeRow* type = nullptr;
    std::uint64_t offset = 0;
    std::optional<std::uint64_t> count;  // none: more than 64 bits can count
};

std::optional<std::uint64_t> wholeSize(const Json& size) {
    if (size.is_number_unsigned()) return size.get<std::uint64_t>();
    if (size.is_number_integer() && size.get<std::int64_t>() >= 0)
        return static_cast<std::uint64_t>(size.get<std::int64_t>());
    return std::nullopt;
}

std::optional<std::uint64_t> product(std::span<const std::uint64_t> sizes) {
    if (std::find(sizes.begin(), sizes.end(), 0u) != sizes.end()) return 0;
    std::uint64_t count = 1;
    for (const std::uint64_t size : sizes) {
        if (size > std::numeric_limits<std::uint64_t>::max() / count) return std::nullopt;
        count *= size;
    }
    return count;
}

Reference readReference(const Json& value, std::string_view label, std::size_t components) {
    Reference reference{.name = requireString(value, "shm")};

    const std::string dtype = optionalString(value, "dtype", "<f4");
    const auto* const row = std::find_if(kDtypes.begin(), kDtypes.end(),
                                         [&](const DtypeRow& known) { return known.name == dtype; });
    if (row == kDtypes.end())
        failRequest("bad_request",
                    "dtype \"" + dtype + "\" is not one of <f4 <f8 <i4 <u4 <i8 <u8");
    reference.type = row;

    const double offset = optionalNumber(value, "offset", 0.0);
    if (offset < 0.0) failArray(label, ": a negative offset");
    reference.offset = saturate<std::uint64_t>(offset);

    const Json& shape = requireField(value, "shape");
    if (!shape.is_array() || shape.empty()) failArray(label, ": shape must be a list");
    std::vector<std::uint64_t> sizes;
    for (const Json& entry : shape) {
        const std::optional<std::uint64_t> size = wholeSize(entry);
        if (!size) failArray(label, ": shape holds a bad size");
        sizes.push_back(*size);
    }
    if (components > 1 && sizes.size() > 1 && sizes[1] != components)
        failArray(label, " has " + std::to_string(sizes[1]) + " components, not " +
                             std::to_string(components));
    reference.count = product(sizes);
    return reference;
}

void readRegion(const SharedRegion& region, std::uint64_t offset, std::span<std::byte> out) {
    try {
        region.read(offset, out);
    } catch (const std::runtime_error& error) {
        failRequest("shared_memory", error.what());
    }
}

// Reads and converts in chunks that stay in cache: each number is moved through memory once.
template <class Kind, class From>
void appendPacked(const SharedRegion& region, std::uint64_t offset, std::size_t count,
                  std::vector<typename Kind::Element>& out) {
    using Element = typename Kind::Element;
    constexpr std::size_t kChunk = kChunkBytes / sizeof(From);
    std::vector<From> packed;
    if constexpr (!std::is_same_v<From, Element>) packed.resize(std::min(count, kChunk));
    out.reserve(count);
    for (std::size_t done = 0; done < count;) {
        const std::size_t size = std::min(kChunk, count - done);
        out.resize(done + size);
        const std::span<Element> target(out.data() + done, size);
        if constexpr (std::is_same_v<From, Element>) {
            readRegion(region, offset, std::as_writable_bytes(target));
        } else {
            const std::span<From> source(packed.data(), size);
            readRegion(region, offset, std::as_writable_bytes(source));
            if constexpr (kIsIds<Kind> && std::is_signed_v<From>)
                if (std::any_of(source.begin(), source.end(), [](From id) { return id < 0; }))
                    failNegativeId();
            std::transform(source.begin(), source.end(), target.begin(), convert<Element, From>);
        }
        done += size;
        offset += size * sizeof(From);
    }
}

template <class Kind>
void appendReference(const Json& value, std::string_view label, std::size_t components,
                     OpenedRegions& regions, std::vector<typename Kind::Element>& out) {
    const Reference reference = readReference(value, label, components);
    const SharedRegion& region = regions.open(reference.name);
    if (reference.offset > region.size() || !reference.count ||
        *reference.count > (region.size() - reference.offset) / reference.type->bytes)
        failArray(label, " runs past the end of shared memory '" + reference.name + "'");
    const auto count = static_cast<std::size_t>(*reference.count);
    const auto append = [&]<class From>(From) {
        appendPacked<Kind, From>(region, reference.offset, count, out);
    };
    if constexpr (kIsIds<Kind>)
        if (reference.type->dtype == Dtype::F4 || reference.type->dtype == Dtype::F8)
            failArray(label, kFraction);
    switch (reference.type->dtype) {
        case Dtype::F4: return append(float());
        case Dtype::F8: return append(double());
        case Dtype::I4: return append(std::int32_t());
        case Dtype::U4: return append(std::uint32_t());
        case Dtype::I8: return append(std::int64_t());
        case Dtype::U8: return append(std::uint64_t());
    }
}

template <class Kind>
std::vector<typename Kind::Element> readArray(const Json& value, std::string_view label,
                                              std::size_t components, OpenedRegions& regions) {
    std::vector<typename Kind::Element> out;
    if (value.is_array())
        appendList<Kind>(value, label, out);
    else if (value.is_object())
        appendReference<Kind>(value, label, components, regions, out);
    else
        failArray(label, " must be a list or a shared memory reference");
    if (components > 1 && out.size() % components != 0)
        failArray(label, " holds " + std::to_string(out.size()) + " values: not a multiple of " +
                             std::to_string(components));
    return out;
}

// An exponent of all ones: tells without a branch, so that the loop runs on whole vectors.
bool allFinite(std::span<const float> values) {
    std::uint32_t bad = 0;
    for (const float value : values)
        bad |= static_cast<std::uint32_t>((std::bit_cast<std::uint32_t>(value) & 0x7f800000u) ==
                                          0x7f800000u);
    return bad == 0;
}

}  // namespace

const SharedRegion& OpenedRegions::open(const std::string& name) {
    const auto found = regions_.find(name);
    if (found != regions_.end()) return found->second;
    try {
        return regions_.emplace(name, SharedRegion::open(name)).first->second;
    } catch (const std::runtime_error& error) {
        failRequest("shared_memory", error.what());
    }
}

std::vector<float> readFloats(const Json& value, std::string_view label, std::size_t components,
                              OpenedRegions& regions) {
    std::vector<float> values = readArray<Floats>(value, label, components, regions);
    if (!allFinite(values)) failArray(label, " holds a NaN or an infinity");
    return values;
}

std::vector<std::int32_t> readInts(const Json& value, std::string_view label,
                                   std::size_t components, OpenedRegions& regions) {
    return readArray<Ints>(value, label, components, regions);
}

std::vector<std::uint32_t> readUints(const Json& value, std::string_view label,
                                     std::size_t components, OpenedRegions& regions) {
    return readArray<Uints>(value, label, components, regions);
}

std::vector<std::uint64_t> readIds(const Json& value, std::string_view label,
                                   OpenedRegions& regions) {
    return readArray<Ids>(value, label, 1, regions);
}

}  // namespace corvelle
