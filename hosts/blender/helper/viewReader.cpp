#include "hosts/blender/helper/viewReader.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "hosts/blender/helper/requestError.h"

namespace corvelle {
namespace {

using Matrix = std::array<double, 16>;  // rows first
constexpr Matrix kIdentity = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
constexpr char kLost[] = "the view's matrix cannot be inverted: no camera to brush from";

Matrix readMatrix(const Json& value, const std::string& label) {
    const std::string shape = label + " is a 4x4 matrix (4 rows of 4, or 16 numbers rows first)";
    if (!value.is_array()) failRequest("bad_request", shape);
    std::vector<const Json*> numbers;
    const bool rows = value.size() == 4;
    for (const Json& entry : value) {
        if (!rows) {
            numbers.push_back(&entry);
            continue;
        }
        if (!entry.is_array() || entry.size() != 4) failRequest("bad_request", shape);
        for (const Json& number : entry) numbers.push_back(&number);
    }
    if (numbers.size() != 16) failRequest("bad_request", shape);
    Matrix matrix;
    for (std::size_t i = 0; i < 16; ++i) {
        // JSON has no NaN: hosts' writers put null or a word in its place, or 1e999.
        if (!numbers[i]->is_number())
            failRequest("bad_request", label + " holds something that is not a number");
        matrix[i] = numbers[i]->get<double>();
        if (!std::isfinite(matrix[i]))
            failRequest("bad_request", label + " holds a NaN or an infinity");
    }
    return matrix;
}

Matrix times(const Matrix& a, const Matrix& b) {
    Matrix out{};
    for (int row = 0; row < 4; ++row)
        for (int column = 0; column < 4; ++column)
            for (int k = 0; k < 4; ++k) out[row * 4 + column] += a[row * 4 + k] * b[k * 4 + column];
    return out;
}

/// Gauss-Jordan, pivoting on the largest of a column. False: no inverse within what doubles tell.
bool invert(Matrix matrix, Matrix& out) {
    out = kIdentity;
    double largest = 0.0;
    for (const double value : matrix) {
        if (!std::isfinite(value)) return false;
        largest = std::max(largest, std::fabs(value));
    }
    // Rows of one scale: a camera far off mixes numbers of very different size.
    for (int row = 0; row < 4; ++row) {
        double scale = 0.0;
        for (int k = 0; k < 4; ++k) scale = std::max(scale, std::fabs(matrix[row * 4 + k]));
        if (scale <= largest * std::numeric_limits<double>::min()) return false;
        for (int k = 0; k < 4; ++k) {
            matrix[row * 4 + k] /= scale;
            out[row * 4 + k] /= scale;
        }
    }
    for (int column = 0; column < 4; ++column) {
        int pivot = column;
        for (int row = column + 1; row < 4; ++row)
            if (std::fabs(matrix[row * 4 + column]) > std::fabs(matrix[pivot * 4 + column]))
                pivot = row;
        const double by = matrix[pivot * 4 + column];
        if (!(std::fabs(by) > 1e-18)) return false;
        for (int k = 0; k < 4; ++k) {
            std::swap(matrix[pivot * 4 + k], matrix[column * 4 + k]);
            std::swap(out[pivot * 4 + k], out[column * 4 + k]);
        }
        for (int k = 0; k < 4; ++k) {
            matrix[column * 4 + k] /= by;
            out[column * 4 + k] /= by;
        }
        for (int row = 0; row < 4; ++row) {
            if (row == column) continue;
            const double factor = matrix[row * 4 + column];
            for (int k = 0; k < 4; ++k) {
                matrix[row * 4 + k] -= factor * matrix[column * 4 + k];
                out[row * 4 + k] -= factor * out[column * 4 + k];
            }
        }
    }
    return std::ranges::all_of(out, [](double value) { return std::isfinite(value); });
}

Matrix groomToHost(const SceneSpace& space) {
    const double k = 1.0 / space.centimetersPerUnit();
    if (!space.zUp()) return {k, 0, 0, 0, 0, k, 0, 0, 0, 0, k, 0, 0, 0, 0, 1};
    return {k, 0, 0, 0, 0, 0, -k, 0, 0, k, 0, 0, 0, 0, 0, 1};
}

struct Homogeneous {
    double x, y, z, w;
};

Homogeneous apply(const Matrix& m, double x, double y, double z, double w) {
    const auto row = [&](int r) {
        return m[r * 4] * x + m[r * 4 + 1] * y + m[r * 4 + 2] * z + m[r * 4 + 3] * w;
    };
    return {row(0), row(1), row(2), row(3)};
}

/// The point of a clip position, in double: views far off lose too much otherwise.
std::array<double, 3> placeOf(const Matrix& inverse, double x, double y, double z) {
    const Homogeneous p = apply(inverse, x, y, z, 1.0);
    if (!(std::fabs(p.w) > 0.0)) failRequest("bad_request", kLost);
    return {p.x / p.w, p.y / p.w, p.z / p.w};
}

}  // namespace

Vec3f readPoint(const Json& value, std::string_view label) {
    const auto fail = [&] {
        failRequest("bad_request", std::string(label) + " is a point [x, y, z]");
    };
    if (!value.is_array() || value.size() != 3) fail();
    std::array<float, 3> point{};
    for (std::size_t i = 0; i < 3; ++i) {
        if (!value[i].is_number()) fail();
        point[i] = float(value[i].get<double>());
        if (!std::isfinite(point[i])) fail();
    }
    return {point[0], point[1], point[2]};
}

ToolView decodeView(const Json& value, const SceneSpace& space) {
    if (!value.is_object())
        failRequest("bad_request",
                    "view is an object: viewMatrix, projectionMatrix (or perspectiveMatrix), "
                    "width, height");
    Matrix matrix;
    if (const Json* whole = findField(value, "perspectiveMatrix")) {
        matrix = readMatrix(*whole, "view.perspectiveMatrix");
    } else {
        const auto required = [&](const char* key) {
            const Json* field = findField(value, key);
            return readMatrix(field ? *field : Json(), std::string("view.") + key);
        };
        const Matrix view = required("viewMatrix");
        matrix = times(required("projectionMatrix"), view);
    }
    if (const Json* object = findField(value, "objectMatrix"))
        matrix = times(matrix, readMatrix(*object, "view.objectMatrix"));
    ToolView view;
    view.width = optionalNumber(value, "width", 0.0);
    view.height = optionalNumber(value, "height", 0.0);
    if (!(view.width > 0.0) || !(view.height > 0.0))
        failRequest("bad_request", "view.width and view.height are the region's size in pixels");
    if (const Json* target = findField(value, "target"))
        view.target = space.pointToGroom(readPoint(*target, "view.target"));
    view.matrix = times(matrix, groomToHost(space));
    if (!invert(view.matrix, view.inverse)) failRequest("bad_request", kLost);

    // Without perspective clip w is the same everywhere: no place of the groom is the eye's.
    const Matrix& m = view.matrix;
    const double turning = std::max({std::fabs(m[12]), std::fabs(m[13]), std::fabs(m[14])});
    const Homogeneous eye = apply(view.inverse, 0.0, 0.0, 1.0, 0.0);
    view.isOrthographic = turning == 0.0 || eye.w == 0.0;
    const auto close = placeOf(view.inverse, 0.0, 0.0, -1.0),
               distant = placeOf(view.inverse, 0.0, 0.0, 1.0);
    std::array<double, 3> along{};
    double length = 0.0;
    for (std::size_t i = 0; i < 3; ++i) {
        along[i] = distant[i] - close[i];
        length += along[i] * along[i];
    }
    length = std::sqrt(length);
    if (!(length > 0.0) || !std::isfinite(length)) failRequest("bad_request", kLost);
    view.pickDirection = {float(along[0] / length), float(along[1] / length),
                          float(along[2] / length)};
    view.cameraPosition =
        view.isOrthographic
            ? Vec3f{float(close[0]), float(close[1]), float(close[2])}
            : Vec3f{float(eye.x / eye.w), float(eye.y / eye.w), float(eye.z / eye.w)};
    return view;
}

Json viewJson(const ToolView& view) {
    return {{"viewDirection", {view.pickDirection.x, view.pickDirection.y, view.pickDirection.z}},
            {"orthographic", view.isOrthographic},
            {"groomMatrix", view.matrix},
            {"width", view.width},
            {"height", view.height}};
}

}  // namespace corvelle
