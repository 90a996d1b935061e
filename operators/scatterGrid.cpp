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

}  // namespace

ScatterPoints scatterGrid(const ScalpMesh& mesh, const ScatterGridSettings& settings,
                          const ScatterDensity& thinning) {
    const auto uvs = mesh.uvs();
    if (uvs.size() != mesh.triangles().size() * 3 || uvs.empty())
        throw std::invalid_argument("scatterGrid: the mesh has no UVs");
    ScatterPoints out;
    if (settings.rows == 0 || settings.columns == 0) return out;
    const std::size_t columns = settings.columns;
    const std::uint64_t base = mix64(settings.seed ^ kGridBase);

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
        const CellRange x = cellsOf(std::min({a.x, b.x, c.x}), std::max({a.x, b.x, c.x}),
                                    settings.columns);
        const CellRange y =
            cellsOf(std::min({a.y, b.y, c.y}), std::max({a.y, b.y, c.y}), settings.rows);
        if (x.empty || y.empty) continue;
        face.firstColumn = x.first;
        face.lastColumn = x.last;
        face.firstRow = y.first;
        face.lastRow = y.last;
        faces.push_back(face);
    }

    // Bands of whole rows; each lists its faces in triangle order.
    const std::size_t rowsPerBand = std::max<std::size_t>(kCellsPerBand / columns, 1);
    const std::size_t bandCount = (settings.rows + rowsPerBand - 1) / rowsPerBand;
    std::vector<std::vector<std::uint32_t>> facesOf(bandCount);
    for (std::size_t f = 0; f < faces.size(); ++f)
        for (std::size_t b = faces[f].firstRow / rowsPerBand; b <= faces[f].lastRow / rowsPerBand;
             ++b)
            facesOf[b].push_back(std::uint32_t(f));

    std::vector<ScatterPoints> bands(bandCount);
    parallelRange(0, bandCount, 1, [&](std::size_t bandBegin, std::size_t bandEnd) {
        std::vector<StrandRoot> cells;
        std::vector<Point2> places;
        for (std::size_t band = bandBegin; band < bandEnd; ++band) {
            if (facesOf[band].empty()) continue;
            const std::size_t rowBegin = band * rowsPerBand;
            const std::size_t rowEnd = std::min<std::size_t>(rowBegin + rowsPerBand, settings.rows);
            cells.assign((rowEnd - rowBegin) * columns, StrandRoot{});
            places.resize(cells.size());
            for (std::size_t row = rowBegin; row < rowEnd; ++row) {
                for (std::size_t column = 0; column < columns; ++column) {
                    const std::uint64_t id =
                        hashCombine(base, std::uint64_t(row * columns + column));
                    Point2 place{double(column) + 0.5, double(row) + 0.5};
                    if (settings.random > 0.0f) {
                        place.x += double(settings.random * drawSigned(kMoveSaltU, id));
                        place.y += double(settings.random * drawSigned(kMoveSaltV, id));
                    }
                    places[(row - rowBegin) * columns + column] = place;
                }
            }
            for (const std::uint32_t f : facesOf[band]) {
                const Face& face = faces[f];
                const auto& [a, b, c] = face.corners;
                const std::size_t lastRow = std::min<std::size_t>(face.lastRow, rowEnd - 1);
                for (std::size_t row = std::max<std::size_t>(face.firstRow, rowBegin);
                     row <= lastRow; ++row) {
                    for (std::size_t column = face.firstColumn; column <= face.lastColumn;
                         ++column) {
                        const std::size_t cell = (row - rowBegin) * columns + column;
                        if (cells[cell].rooted()) continue;
                        const Point2 p = places[cell];
                        const double wa = edgeSide(b, c, p), wb = edgeSide(c, a, p);
                        if (wa < 0.0 || wb < 0.0 || edgeSide(a, b, p) < 0.0) continue;
                        cells[cell] = {face.triangle, float(wa / face.area2),
                                       float(wb / face.area2)};
                    }
                }
            }
            ScatterPoints& found = bands[band];
            for (std::size_t cell = 0; cell < cells.size(); ++cell) {
                if (!cells[cell].rooted()) continue;
                found.ids.push_back(hashCombine(base, std::uint64_t(rowBegin * columns + cell)));
                found.roots.push_back(cells[cell]);
            }
            if (!thinning.mapped()) continue;

            std::array<Vec3f, kBlock> positions;
            std::array<float, kBlock> odds;
            std::size_t to = 0;
            for (std::size_t i = 0; i < found.size(); i += kBlock) {
                const std::size_t n = std::min(kBlock, found.size() - i);
                for (std::size_t k = 0; k < n; ++k)
                    positions[k] = mesh.surfacePoint(found.roots[i + k]);
                thinning.sample({found.roots.data() + i, n}, {positions.data(), n},
                                {odds.data(), n});
                for (std::size_t k = 0; k < n; ++k) {
                    if (!(draw(kKeepSalt, found.ids[i + k]) < odds[k])) continue;
                    found.ids[to] = found.ids[i + k];
                    found.roots[to] = found.roots[i + k];
                    ++to;
                }
            }
            found.ids.resize(to);
            found.roots.resize(to);
        }
    });
    std::size_t total = 0;
    for (const ScatterPoints& band : bands) total += band.size();
    out.ids.reserve(total);
    out.roots.reserve(total);
    for (const ScatterPoints& band : bands) {
        out.ids.insert(out.ids.end(), band.ids.begin(), band.ids.end());
        out.roots.insert(out.roots.end(), band.roots.begin(), band.roots.end());
    }
    return out;
}

}  // namespace corvelle
