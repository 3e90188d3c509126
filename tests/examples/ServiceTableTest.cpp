#include "ServiceTable.h"

#include <gtest/gtest.h>

namespace {

using tsmon::ProgramAssociation;
using tsmon::ProgramMap;
using tsmon::Service;
using tsmon::ServiceDescriptions;
using tsmon::ServiceTable;

ProgramMap MapOf(std::uint16_t serviceId)
{
    return {serviceId, 0, 0x101, {{0x101, 0x02, "MPEG-2 video", ""}}};
}

TEST(ServiceTableTest, EmptyTableHasNoServicesAndNoStreamId)
{
    const ServiceTable table;
    EXPECT_TRUE(table.Services().empty());
    EXPECT_FALSE(table.TransportStreamId().has_value());
}

TEST(ServiceTableTest, ServiceIsPutTogetherFromItsTables)
{
    ServiceTable table;
    table.OnPrograms({7, 0, {{1, 0x100}}});
    table.OnProgramMap(MapOf(1));
    table.OnDescriptions({7, 0x2000, 0, {{1, "One", "Maker"}}});
    const std::vector<Service> services = table.Services();
    ASSERT_EQ(services.size(), 1U);
    EXPECT_EQ(services[0].id, 1);
    EXPECT_EQ(services[0].pmtPid, 0x100);
    ASSERT_TRUE(services[0].map.has_value());
    EXPECT_EQ(services[0].map->streams.size(), 1U);
    ASSERT_TRUE(services[0].description.has_value());
    EXPECT_EQ(services[0].description->name, "One");
    EXPECT_EQ(table.TransportStreamId(), 7);
}

TEST(ServiceTableTest, ServicesAreSortedById)
{
    ServiceTable table;
    table.OnPrograms({7, 0, {{3, 0x300}, {1, 0x100}}});
    table.OnDescriptions({7, 0, 0, {{2, "Two", ""}}});
    const std::vector<Service> services = table.Services();
    ASSERT_EQ(services.size(), 3U);
    EXPECT_EQ(services[0].id, 1);
    EXPECT_EQ(services[1].id, 2);
    EXPECT_EQ(services[2].id, 3);
}

TEST(ServiceTableTest, ServiceWithoutDescriptionIsKept)
{
    ServiceTable table;
    table.OnPrograms({7, 0, {{1, 0x100}}});
    ASSERT_EQ(table.Services().size(), 1U);
    EXPECT_FALSE(table.Services()[0].description.has_value());
    EXPECT_FALSE(table.Services()[0].map.has_value());
}

TEST(ServiceTableTest, ServiceWithoutProgramIsKept)
{
    ServiceTable table;
    table.OnDescriptions({7, 0, 0, {{1, "One", "Maker"}}});
    ASSERT_EQ(table.Services().size(), 1U);
    EXPECT_FALSE(table.Services()[0].pmtPid.has_value());
    EXPECT_EQ(table.Services()[0].description->provider, "Maker");
}

TEST(ServiceTableTest, NewAssociationReplacesTheOldAndDropsMapsThatWentWithIt)
{
    ServiceTable table;
    table.OnPrograms({7, 0, {{1, 0x100}, {2, 0x200}, {3, 0x300}}});
    for (const std::uint16_t id : {1, 2, 3}) {
        table.OnProgramMap(MapOf(id));
    }
    table.OnPrograms({7, 1, {{1, 0x100}, {2, 0x222}}});
    const std::vector<Service> services = table.Services();
    ASSERT_EQ(services.size(), 2U);
    EXPECT_TRUE(services[0].map.has_value());
    EXPECT_FALSE(services[1].map.has_value()) << "its map has moved";
    EXPECT_EQ(services[1].pmtPid, 0x222);
}

TEST(ServiceTableTest, NewDescriptionsReplaceTheOld)
{
    ServiceTable table;
    table.OnDescriptions({7, 0, 0, {{1, "Old", ""}, {2, "Gone", ""}}});
    table.OnDescriptions({7, 0, 1, {{1, "New", ""}}});
    ASSERT_EQ(table.Services().size(), 1U);
    EXPECT_EQ(table.Services()[0].description->name, "New");
}

TEST(ServiceTableTest, MapOfAnUnknownServiceIsIgnored)
{
    ServiceTable table;
    table.OnProgramMap(MapOf(1));
    table.OnPrograms({7, 0, {{2, 0x200}}});
    table.OnProgramMap(MapOf(3));
    ASSERT_EQ(table.Services().size(), 1U);
    EXPECT_EQ(table.Services()[0].id, 2);
}

TEST(ServiceTableTest, ComplaintsChangeNothing)
{
    ServiceTable table;
    table.OnPrograms({7, 0, {{1, 0x100}}});
    table.OnComplaint(tsmon::Severity::ERROR, "broken");
    EXPECT_EQ(table.Services().size(), 1U);
}

} // namespace
