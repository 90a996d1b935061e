#include "operators/scatterGrid.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>
#include <vector>

#include "model/hash.h"
#include "model/parallel.h"

namespace corvelle {

namespace {

constexpr std::uint64_t kGridBase = 0x6121d5eedu;
constexpr std::uint64_t kMoveSaltU = hashOf("Scatter.gridU");
constexpr std::uint64_t kMoveSaltV = hashOf("Scatter.gridV");
constexpr std::uint64_t kKeepSalt = hashOf("Scatter.gridKeep");
constexpr std::size_t kBlock = 256;
constexpr std::size_t kCellsPerBand = std::size_t(1) << 16;

struct Point2 {
    double x = 0.0, y = 0.0;
};

/// Twice the signed area of (a, b, p). The ends are taken in one order whichever way round they
/// come, so that the two faces of an edge never both miss, nor both strictly take, a point on it.
double edgeSide(Point2 a, Point2 b, Point2 p) {
    const bool swap = b.x < a.x || (b.x == a.x && b.y < a.y);
    if (swap) std::swap(a, b);
    const double side = (b.x - a.x) * (p.y - a.y) - (b.y - a.y) * (p.x - a.x);
    return swap ? -side : side;
}

struct Face {
    std::int32_t triangle = 0;
    std::array<Point2, 3> corners;  ///< in cells
    double area2 = 0.0;
    std::uint32_t firstRow = 0, lastRow = 0, firstColumn = 0, lastColumn = 0;
};

struct CellRange {
    std::uint32_t first = 0, last = 0;
    bool empty = true;
};

/// Cells whose point can lie within [low, high]: a point may leave its cell by one cell.
CellRange cellsOf(double low, double high, std::uint32_t count) {
    const double first = std::max(std::floor(low) - 1.0, 0.0);
    const double last = std::min(std::floor(high) + 1.0, double(count) - 1.0);
    if (!(first <= last)) return {};
    return {std::uint32_t(first), std::uint32_t(last), false};
}

/// The triangles that UVs lay facing up on the grid, in triangle order.
std::vector<Face> facesOnGrid(const ScalpMesh& mesh, const ScatterGridSettings& settings) {
    const auto uvs = mesh.uvs();
    const auto [first, end] = mesh.activeTriangles();
    std::vector<Face> faces;
    for (std::size_t t = first; t < end; ++t) {
        Face face;
        face.triangle = std::int32_t(t);
        for (std::size_t c = 0; c < 3; ++c)
            face.corners[c] = {double(uvs[3 * t + c].x) * double(settings.columns),
                               double(uvs[3 * t + c].y) * double(settings.rows)};
        const auto& [a, b, c] = face.corners;
        face.area2 = edgeSide(a, b, c);
        if (!(face.area2 > 0.0) || !std::isfinite(face.area2)) continue;
        const CellRange x =
            cellsOf(std::min({a.x, b.x, c.x}), std::max({a.x, b.x, c.x}), settings.columns);
        const CellRange y =
            cellsOf(std::min({a.y, b.y, c.y}), std::max({a.y, b.y, c.y}), settings.rows);
        if (x.empty || y.empty) continue;
        face.firstColumn = x.first;
        face.lastColumn = x.last;
        face.firstRow = y.first;
        face.lastRow = y.last;
        faces.push_back(face);
    }
    return faces;
}

/// Whole rows of the grid, one band at a time: a parallel body keeps one for all of its bands.
class Band {
public:
    Band(const ScatterGridSettings& settings, std::uint64_t base)
        : settings_(settings), base_(base), columns_(settings.columns) {}

    /// Makes the rows from `begin` up to `end` the band, no cell on a face.
    void open(std::size_t begin, std::size_t end) {
        rowBegin_ = begin;
        rowEnd_ = end;
        cells_.assign((end - begin) * columns_, StrandRoot{});
        places_.resize(cells_.size());
        for (std::size_t cell = 0; cell < cells_.size(); ++cell) {
            const std::uint64_t id = idOf(cell);
            Point2 place{double(cell % columns_) + 0.5, double(begin + cell / columns_) + 0.5};
            if (settings_.random > 0.0f) {
                place.x += double(settings_.random * drawSigned(kMoveSaltU, id));
                place.y += double(settings_.random * drawSigned(kMoveSaltV, id));
            }
            places_[cell] = place;
        }
    }
    /// The face takes the cells whose points it holds and no face before it took.
    void take(const Face& face) {
        const auto& [a, b, c] = face.corners;
        const std::size_t lastRow = std::min<std::size_t>(face.lastRow, rowEnd_ - 1);
        for (std::size_t row = std::max<std::size_t>(face.firstRow, rowBegin_); row <= lastRow;
             ++row)
            for (std::size_t column = face.firstColumn; column <= face.lastColumn; ++column) {
                const std::size_t cell = (row - rowBegin_) * columns_ + column;
                if (cells_[cell].rooted()) continue;
                const Point2 p = places_[cell];
                const double wa = edgeSide(b, c, p), wb = edgeSide(c, a, p);
                if (wa < 0.0 || wb < 0.0 || edgeSide(a, b, p) < 0.0) continue;
                cells_[cell] = {face.triangle, float(wa / face.area2), float(wb / face.area2)};
            }
    }
    /// The cells on faces.
    ScatterPoints found() const {
        ScatterPoints out;
        for (std::size_t cell = 0; cell < cells_.size(); ++cell) {
            if (!cells_[cell].rooted()) continue;
            out.ids.push_back(idOf(cell));
            out.roots.push_back(cells_[cell]);
        }
        return out;
    }

private:
    std::uint64_t idOf(std::size_t cell) const {
        return hashCombine(base_, std::uint64_t(rowBegin_ * columns_ + cell));
    }

    const ScatterGridSettings& settings_;
    std::uint64_t base_;
    std::size_t columns_, rowBegin_ = 0, rowEnd_ = 0;
    std::vector<StrandRoot> cells_;
    std::vector<Point2> places_;  ///< in cells of the whole grid
};

/// Keeps each point with the odds that the map gives there.
void thin(const ScalpMesh& mesh, const ScatterDensity& odds, ScatterPoints& points) {
    std::array<Vec3f, kBlock> positions;
    std::array<float, kBlock> values;
    std::size_t to = 0;
    for (std::size_t i = 0; i < points.size(); i += kBlock) {
        const std::size_t n = std::min(kBlock, points.size() - i);
        for (std::size_t k = 0; k < n; ++k) positions[k] = mesh.surfacePoint(points.roots[i + k]);
        odds.sample({points.roots.data() + i, n}, {positions.data(), n}, {values.data(), n});
        for (std::size_t k = 0; k < n; ++k) {
            if (!(draw(kKeepSalt, points.ids[i + k]) < values[k])) continue;
            points.ids[to] = points.ids[i + k];
            points.roots[to] = points.roots[i + k];
            ++to;
        }
    }
    points.ids.resize(to);
    points.roots.resize(to);
}

}  // namespace

ScatterPoints scatterGrid(const ScalpMesh& mesh, const ScatterGridSettings& settings,
                          const ScatterDensity& thinning) {
    const auto uvs = mesh.uvs();
    if (uvs.size() != mesh.triangles().size() * 3 || uvs.empty())
        throw std::invalid_argument("scatterGrid: the mesh has no UVs");
    ScatterPoints out;
    if (settings.rows == 0 || settings.columns == 0) return out;
    const std::vector<Face> faces = facesOnGrid(mesh, settings);

    // Bands of whole rows; each lists its faces in triangle order.
    const std::size_t rowsPerBand = std::max<std::size_t>(kCellsPerBand / settings.columns, 1);
    const std::size_t bandCount = (settings.rows + rowsPerBand - 1) / rowsPerBand;
    std::vector<std::vector<std::uint32_t>> facesOf(bandCount);
    for (std::size_t f = 0; f < faces.size(); ++f)
        for (std::size_t b = faces[f].firstRow / rowsPerBand; b <= faces[f].lastRow / rowsPerBand;
             ++b)
            facesOf[b].push_back(std::uint32_t(f));

    const std::uint64_t base = mix64(settings.seed ^ kGridBase);
    std::vector<ScatterPoints> found(bandCount);
    parallelRange(0, bandCount, 1, [&](std::size_t begin, std::size_t end) {
        Band band(settings, base);
        for (std::size_t b = begin; b < end; ++b) {
            if (facesOf[b].empty()) continue;
            band.open(b * rowsPerBand, std::min<std::size_t>((b + 1) * rowsPerBand, settings.rows));
            for (const std::uint32_t f : facesOf[b]) band.take(faces[f]);
            found[b] = band.found();
            if (thinning.mapped()) thin(mesh, thinning, found[b]);
        }
    });
    std::size_t total = 0;
    for (const ScatterPoints& points : found) total += points.size();
    out.ids.reserve(total);
    out.roots.reserve(total);
    for (const ScatterPoints& points : found) {
        out.ids.insert(out.ids.end(), points.ids.begin(), points.ids.end());
        out.roots.insert(out.roots.end(), points.roots.begin(), points.roots.end());
    }
    return out;
}

}  // namespace corvelle
