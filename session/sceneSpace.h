#pragma once

#include <string>

#include "model/vec3f.h"

namespace corvelle {

/// The host's space, and the way between it and groom space (Y up, centimetres, right-handed).
/// Components are multiplied or divided in double and stored as float32.
class SceneSpace {
public:
    SceneSpace() : SceneSpace("Z", 1.0) {}
    /// Throws std::invalid_argument "space.upAxis is "Y" or "Z", not "<value>"" and
    /// "space.metersPerUnit must be above 0" (also above 1e6).
    SceneSpace(std::string upAxis, double metersPerUnit);

    const std::string& upAxis() const { return upAxis_; }
    bool zUp() const { return zUp_; }
    double metersPerUnit() const { return metersPerUnit_; }
    double centimetersPerUnit() const { return centimetersPerUnit_; }

    Vec3f pointToGroom(Vec3f host) const {
        const double s = centimetersPerUnit_;
        const float x = float(double(host.x) * s), y = float(double(host.y) * s), z = float(double(host.z) * s);
        return zUp_ ? Vec3f{x, z, -y} : Vec3f{x, y, z};
    }
    Vec3f pointToHost(Vec3f groom) const {
        const double s = centimetersPerUnit_;
        const float x = float(double(groom.x) / s), y = float(double(groom.y) / s), z = float(double(groom.z) / s);
        return zUp_ ? Vec3f{x, -z, y} : Vec3f{x, y, z};
    }
    Vec3f directionToGroom(Vec3f host) const { return zUp_ ? Vec3f{host.x, host.z, -host.y} : host; }
    Vec3f directionToHost(Vec3f groom) const { return zUp_ ? Vec3f{groom.x, -groom.z, groom.y} : groom; }
    float lengthToGroom(float host) const { return float(double(host) * centimetersPerUnit_); }
    float lengthToHost(float groom) const { return float(double(groom) / centimetersPerUnit_); }
    friend bool operator==(const SceneSpace&, const SceneSpace&) = default;

private:
    std::string upAxis_;
    double metersPerUnit_;
    double centimetersPerUnit_;
    bool zUp_;
};

}  // namespace corvelle
