#pragma once

#include <memory>
#include <string>
#include <vector>

#include "io/alembicWriter.h"

namespace corvelle {

/// A frame taken apart into its export groups, holding what the views of `groups` show.
class GroupedFrame {
public:
    /// Groups by the strand channel `groupId`, ascending: the number is the group's id. Group 0 is
    /// named `name`, others as the feather layer with that number names them, else "group_<id>".
    GroupedFrame(const StrandFrame& frame, const std::string& name);
    ~GroupedFrame();
    GroupedFrame(const GroupedFrame&) = delete;
    GroupedFrame& operator=(const GroupedFrame&) = delete;
    const std::vector<StrandGroup>& groups() const { return groups_; }

    /// Whether strands carry groups at all.
    static bool isGrouped(const StrandSet& strands);

private:
    struct Part;
    std::vector<std::unique_ptr<Part>> parts_;
    std::vector<StrandGroup> groups_;
};

}  // namespace corvelle
