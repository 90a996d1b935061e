#include "hosts/blender/helper/viewReader.h"

#include <cmath>
#include <optional>

#include "hosts/blender/helper/requestError.h"

namespace corvelle {
namespace {

using Matrix = std::array<double, 16>;  // rows first

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

Matrix groomToHost(const SceneSpace& space) {
    const double k = 1.0 / space.centimetersPerUnit();
    if (!space.zUp()) return {k, 0, 0, 0, 0, k, 0, 0, 0, 0, k, 0, 0, 0, 0, 1};
    return {k, 0, 0, 0, 0, 0, -k, 0, 0, k, 0, 0, 0, 0, 0, 1};
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
        matrix = multiplyMatrices(required("projectionMatrix"), view);
    }
    if (const Json* object = findField(value, "objectMatrix"))
        matrix = multiplyMatrices(matrix, readMatrix(*object, "view.objectMatrix"));
    const double width = optionalNumber(value, "width", 0.0),
                 height = optionalNumber(value, "height", 0.0);
    if (!(width > 0.0) || !(height > 0.0))
        failRequest("bad_request", "view.width and view.height are the region's size in pixels");
    std::optional<Vec3f> target;
    if (const Json* given = findField(value, "target"))
        target = space.pointToGroom(readPoint(*given, "view.target"));
    std::optional<ToolView> view =
        makeToolView(multiplyMatrices(matrix, groomToHost(space)), width, height);
    if (!view)
        failRequest("bad_request", "the view's matrix cannot be inverted: no camera to brush from");
    view->target = target;
    return *view;
}

Json viewJson(const ToolView& view) {
    return {{"viewDirection", {view.pickDirection.x, view.pickDirection.y, view.pickDirection.z}},
            {"orthographic", view.isOrthographic},
            {"groomMatrix", view.matrix},
            {"width", view.width},
            {"height", view.height}};
}

}  // namespace corvelle
