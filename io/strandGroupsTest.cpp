#include <gmock/gmock.h>

#include "io/strandGroups.h"
#include "io/testing/exportCases.h"

namespace corvelle {
namespace {

class TestLayer final : public FeatherLayer {
public:
    std::int32_t groupId() const override { return 3; }
    std::string groupName() const override { return "crest"; }
};

TEST(StrandGroups, SplitByTheChannelWithAllThatBelongsToAStrand) {
    OwnedFrame frame = ownedFrame(makeTuft({.strands = 40, .uneven = true}));
    EXPECT_FALSE(GroupedFrame::isGrouped(frame.strands));
    const float numbers[] = {0.0f, 3.0f, 5.0f, -1.0f};  // what is no group is the hair itself
    const auto groupIds = frame.strands.mutableStrandChannel("groupId", 0.0f);
    for (std::size_t s = 0; s < groupIds.size(); ++s) groupIds[s] = numbers[s % 4];
    frame.strands.featherLayers.push_back(std::make_shared<TestLayer>());
    frame.pointColors.resize(frame.strands.pointCount());
    for (std::size_t i = 0; i < frame.pointColors.size(); ++i)
        frame.pointColors[i] = {float(i), 0, 0};
    ASSERT_TRUE(GroupedFrame::isGrouped(frame.strands));
    const GroupedFrame grouped(frame.view(), "hair");
    ASSERT_EQ(grouped.groups().size(), 3u);
    const char* names[] = {"hair", "crest", "group_5"};
    const std::int32_t ids[] = {0, 3, 5};
    std::size_t strands = 0;
    for (std::size_t g = 0; g < 3; ++g) {
        const StrandGroup& group = grouped.groups()[g];
        EXPECT_EQ(group.name, names[g]);
        EXPECT_EQ(group.id, ids[g]);
        EXPECT_EQ(faultOf(group.frame), "");
        strands += group.frame.strands->strandCount();
        for (std::size_t s = 0; s < group.frame.strands->strandCount(); ++s) {
            const std::uint64_t id = group.frame.strands->ids()[s];
            const auto at = std::size_t(std::ranges::find(frame.strands.ids(), id) -
                                        frame.strands.ids().begin());
            EXPECT_EQ(group.frame.colors[s], frame.colors[at]);
            EXPECT_EQ(group.frame.rootUvs[s], frame.uvs[at]);
            if (group.frame.strands->pointCountOf(s) > 0) {
                EXPECT_EQ(group.frame.pointColors[std::size_t(group.frame.strands->offsets()[s])].x,
                          float(frame.strands.offsets()[at]));
            }
        }
    }
    EXPECT_EQ(strands, 40u);
}

}  // namespace
}  // namespace corvelle
