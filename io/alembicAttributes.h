#pragma once

// Attributes of an Alembic object that may come late or stay away: for the writers of this folder.

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <Alembic/AbcGeom/All.h>

namespace corvelle {

/// What one sample of an object counts: an attribute has one value per item of its scope.
struct ScopeCounts {
    std::size_t uniform = 0;  ///< curves or faces
    std::size_t vertex = 0;   ///< points
    std::size_t of(Alembic::AbcGeom::GeometryScope scope) const {
        switch (scope) {
            case Alembic::AbcGeom::kConstantScope:
                return 1;
            case Alembic::AbcGeom::kUniformScope:
                return uniform;
            default:
                return vertex;
        }
    }
};

/// A sample over values that lie elsewhere. No values make a sample of length 0, which is not the
/// same as no sample: that would repeat the one before.
template <class Sample, class T>
Sample sampleOver(std::span<const T> values) {
    using Value = typename Sample::value_type;
    static_assert(sizeof(T) == sizeof(Value));
    static const Value none{};
    return Sample(values.empty() ? &none : reinterpret_cast<const Value*>(values.data()),
                  values.size());
}

/// The attributes of one object, in the order in which they came. All hold as many samples as the
/// object: what comes late has defaults before, what stays away has defaults from there on.
class AlembicAttributes {
public:
    AlembicAttributes(Alembic::Abc::OCompoundProperty parent) : parent_(std::move(parent)) {}

    /// One sample of an attribute: `values` holds `perItem` values per item of the scope.
    template <class Param, class T>
    void write(std::string_view name, Alembic::AbcGeom::GeometryScope scope,
               std::span<const T> values, typename Param::value_type otherwise = {},
               std::size_t perItem = 1) {
        auto found = std::find_if(all_.begin(), all_.end(),
                                  [&](const auto& attribute) { return attribute->name == name; });
        if (found == all_.end()) {
            all_.push_back(std::make_unique<Typed<Param>>(parent_, std::string(name), scope,
                                                          otherwise, perItem));
            for (const ScopeCounts& counts : samples_) all_.back()->writeDefaults(counts);
            found = all_.end() - 1;
        }
        using Values = Alembic::Abc::TypedArraySample<typename Param::prop_type::traits_type>;
        static_cast<Typed<Param>&>(**found).set(sampleOver<Values>(values));
    }
    /// After the attributes of one sample: fills those that were not written.
    void endSample(const ScopeCounts& counts) {
        samples_.push_back(counts);
        for (const auto& attribute : all_)
            if (attribute->written < samples_.size()) attribute->writeDefaults(counts);
    }
    void setTimeSampling(std::uint32_t index) {
        for (const auto& attribute : all_) attribute->setTimeSampling(index);
    }
    std::size_t samples() const { return samples_.size(); }

private:
    struct Attribute {
        explicit Attribute(std::string itsName) : name(std::move(itsName)) {}
        virtual ~Attribute() = default;
        virtual void writeDefaults(const ScopeCounts& counts) = 0;
        virtual void setTimeSampling(std::uint32_t index) = 0;
        std::string name;
        std::size_t written = 0;
    };
    template <class Param>
    struct Typed final : Attribute {
        using Value = typename Param::value_type;
        using Values = Alembic::Abc::TypedArraySample<typename Param::prop_type::traits_type>;
        Typed(const Alembic::Abc::OCompoundProperty& parent, std::string itsName,
              Alembic::AbcGeom::GeometryScope itsScope, Value itsDefault, std::size_t itsPerItem)
            : Attribute(std::move(itsName)),
              scope(itsScope),
              otherwise(std::move(itsDefault)),
              perItem(itsPerItem),
              param(parent, name, false, scope, perItem) {}
        void set(const Values& values) {
            param.set(typename Param::Sample(values, scope));
            ++written;
        }
        void writeDefaults(const ScopeCounts& counts) override {
            const std::vector<Value> values(counts.of(scope) * perItem, otherwise);
            set(sampleOver<Values>(std::span(values)));
        }
        void setTimeSampling(std::uint32_t index) override { param.setTimeSampling(index); }
        Alembic::AbcGeom::GeometryScope scope;
        Value otherwise;
        std::size_t perItem;
        Param param;
    };

    Alembic::Abc::OCompoundProperty parent_;
    std::vector<std::unique_ptr<Attribute>> all_;
    std::vector<ScopeCounts> samples_;
};

}  // namespace corvelle
