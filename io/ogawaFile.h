#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

namespace corvelle {

/// The container that Alembic files lie in: groups of references to groups and to runs of bytes.
/// Numbers are little-endian, as is every machine that this is built for.
class OgawaFile {
public:
    /// A reference: to a group, or to data when the top bit is set; 0 but for that bit: empty.
    struct Reference {
        std::uint64_t raw = 0;
        bool isData() const { return raw >> 63 != 0; }
        bool isGroup() const { return !isData(); }
        std::uint64_t position() const { return raw & ~(std::uint64_t(1) << 63); }
    };
    using Group = std::vector<Reference>;

    /// Keeps `in`, which must outlive this.
    explicit OgawaFile(std::istream& in) : in_(in) {}

    /// Walks all groups and gives the first fault as a text, empty for none: "not an Alembic file",
    /// "the file is not whole: its writer did not finish", or what is broken. Only a file that
    /// passed may be asked what follows. It has every reference within itself, no group inside
    /// itself and none that overlap, so a walk over all of it ends in time linear in its size.
    /// Never reads the data.
    std::string check();

    Reference root() const { return root_; }
    Group group(Reference reference);
    std::uint64_t dataSize(Reference reference);
    std::string data(Reference reference);

private:
    bool read(std::uint64_t position, void* to, std::uint64_t bytes);
    bool readCount(std::uint64_t position, std::uint64_t& count);

    std::istream& in_;
    std::uint64_t size_ = 0;
    Reference root_;
};

}  // namespace corvelle
