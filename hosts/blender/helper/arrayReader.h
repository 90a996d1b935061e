#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "hosts/blender/helper/request.h"
#include "hosts/blender/helper/sharedRegion.h"

namespace corvelle {

/// The shared memory that one request names: each region is opened once, however many arrays lie in
/// it, and all are closed with this table at the end of the request.
class OpenedRegions {
public:
    /// Throws: RequestError of code shared_memory with the region's own text.
    const SharedRegion& open(const std::string& name);

private:
    std::map<std::string, SharedRegion, std::less<>> regions_;
};

// Readers of a request's arrays. `value` is a JSON list, nested as it pleases (read in order, so
// [[1,2,3],[4,5,6]] is [1,2,3,4,5,6]), or a reference to packed little-endian numbers in shared
// memory:
//     {"shm": name, "offset": bytes = 0, "dtype": "<f4", "shape": [n] or [n, components]}
// with a dtype of <f4 <f8 <i4 <u4 <i8 <u8. `label` is the field's name in messages; `components` is
// how many numbers make an element (3 for points), 1 for plain lists.
//
// Throw: RequestError, code bad_request for what is wrong with the value, shared_memory for a
// region that does not open. Nothing has changed then: arrays are read whole before any is used.

/// Every number narrowed to float32. Infinities and NaNs are refused, so none enters a session.
std::vector<float> readFloats(const Json& value, std::string_view label, std::size_t components,
                              OpenedRegions& regions);

/// In a list integers alone; in shared memory floats are cut towards zero (saturating, NaN is 0).
/// Wider integers narrow to their low 32 bits.
std::vector<std::int32_t> readInts(const Json& value, std::string_view label,
                                   std::size_t components, OpenedRegions& regions);
std::vector<std::uint32_t> readUints(const Json& value, std::string_view label,
                                     std::size_t components, OpenedRegions& regions);

/// Guide and strand IDs: integers from 0 up, in shared memory any integer dtype; 0 says "none".
/// Throws also: "a guide ID is a positive integer" for a negative one.
std::vector<std::uint64_t> readIds(const Json& value, std::string_view label,
                                   OpenedRegions& regions);

}  // namespace corvelle
