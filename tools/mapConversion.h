#pragma once

#include <memory>
#include <span>
#include <vector>

#include "expr/texture.h"
#include "model/scalpMesh.h"
#include "tools/paintImage.h"

namespace corvelle {

// Painted maps carried from scalp to scalp and from kind to kind. Vertex maps hold `channels` (1 or
// 4) values a vertex. Both scalps of a projection lie in one space, each in the pose to compare: a
// place on the new one reads the nearest place of the old one.
//
// Throw std::invalid_argument with the text to show.

/// The image for the new scalp's UVs, of the old one's size. Pixels on no triangle, but for 2
/// beyond the islands, stay as they were. Throws: "the new scalp has no UVs to paint a texture map
/// on", "the old scalp has no UVs to read the
///         texture map at", "the old scalp has no faces".
std::shared_ptr<const PaintImage> projectTexture(const PaintImage& image, const ScalpPtr& oldScalp,
                                                 const ScalpPtr& newScalp);

/// One value per vertex and channel of the new scalp.
/// Throws: "the map has <n> vertices' values and the old scalp <m> vertices", "the old scalp has no
///         faces".
std::vector<float> projectVertexMap(std::span<const float> values, int channels,
                                    const ScalpMesh& oldScalp, const ScalpMesh& newScalp);

/// A colour per corner of the scalp's triangles: gray on all three, alpha 1, for one channel.
/// Throws "cornerColorsFromVertexMap: one value per scalp vertex and channel".
std::vector<Color4f> cornerColorsFromVertexMap(std::span<const float> values, int channels,
                                               const ScalpMesh& scalp);

/// The map as an image of `resolution` pixels a side over the scalp's UVs; pixels on no triangle
/// are 0. Throws: "the scalp has no UVs to paint a texture map on", "textureFromVertexMap: one
/// value per scalp
///         vertex and channel".
std::shared_ptr<const PaintImage> textureFromVertexMap(std::span<const float> values, int channels,
                                                       const ScalpPtr& scalp, int resolution);

/// The image at each vertex: the mean over the triangle corners that meet there, whose UVs may
/// differ; 0 at a vertex of no triangle. One channel reads luminance. Throws: "the scalp has no UVs
/// to read a texture map at".
std::vector<float> vertexMapFromTexture(const Texture& texture, int channels,
                                        const ScalpMesh& scalp);

}  // namespace corvelle
