#include "hosts/blender/helper/sharedRegion.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "hosts/blender/helper/platform/processStart.h"

namespace corvelle {
namespace {

constexpr std::size_t kLongestName = 200;

bool isNameByte(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '/' || c == '_';
}

void checkName(const std::string& name) {
    if (!isRegionName(name)) throw std::runtime_error("bad shared memory name '" + name + "'");
}

}  // namespace

bool isRegionName(std::string_view name) noexcept {
    return name.size() <= kLongestName && std::all_of(name.begin(), name.end(), isNameByte) &&
           !plainMappingName(name).empty();
}

std::string regionName(std::string_view base, std::uint32_t serial) {
    std::string name = "corvelle_" + std::to_string(processNumber()) + "_";
    name += base;
    name += "_" + std::to_string(serial);
    return name;
}

SharedRegion::SharedRegion(std::string name, SharedMapping mapping) noexcept
    : name_(std::move(name)), mapping_(mapping) {}

SharedRegion::SharedRegion(SharedRegion&& other) noexcept
    : name_(std::move(other.name_)), mapping_(std::exchange(other.mapping_, {})) {}

SharedRegion& SharedRegion::operator=(SharedRegion&& other) noexcept {
    if (this != &other) {
        closeMapping(mapping_, name_);
        name_ = std::move(other.name_);
        mapping_ = std::exchange(other.mapping_, {});
    }
    return *this;
}

SharedRegion::~SharedRegion() { closeMapping(mapping_, name_); }

SharedRegion SharedRegion::create(const std::string& name, std::uint64_t size) {
    checkName(name);
    return {name, makeMapping(name, std::max<std::uint64_t>(size, 1))};
}

SharedRegion SharedRegion::open(const std::string& name) {
    checkName(name);
    return {name, openMapping(name)};
}

std::span<std::byte> SharedRegion::bytes() const noexcept {
    if (!mapping_.made) return {};
    return {mapping_.base, static_cast<std::size_t>(mapping_.size)};
}

void SharedRegion::read(std::uint64_t offset, std::span<std::byte> out) const {
    readMapping(mapping_, name_, offset, out.size(), out.data());
}

}  // namespace corvelle
