#include "agent/RouteWriter.h"

#include "Nex/Machine.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>

namespace Agent {
namespace {

using Kesh::Multicast::Fib::IpGenRouteKey;
using Kesh::Multicast::Fib::MfibKeshColl;
using Lox::IpAddr;
using Table = Kesh::Multicast::Fib::Status;

std::string textOf(Lox::IpPrefix prefix) {
    return prefix.address().stringValue() + "/" + std::to_string(prefix.length());
}

class RouteWriterTest : public testing::Test {
  protected:
    /// Notes what is told of the table: "+", "-" for routes present and absent.
    class NexTable : public Nex::Reactor<Table::NotifieeConst, Nex::PtrInterface> {
      public:
        NexTable(Nex::Ptr<Table const> table, RouteWriterTest* test)
            : Reactor(std::move(table), static_cast<Nex::PtrInterface*>(nullptr)), test_(test) {
            hasNotificationActiveIs(true);
        }
        void onRoute(IpGenRouteKey key) override {
            test_->told_ += (notifier()->routeHas(key) ? "+" : "-") + textOf(key.source) + "," +
                            textOf(key.group) + " ";
        }

      private:
        RouteWriterTest* test_;
    };

    std::string told() { return std::exchange(told_, ""); }

    Nex::Ptr<MfibKeshColl> tables = MfibKeshColl::MfibKeshCollIs(L3::VrfName("red"));
    std::unique_ptr<RouteWriter> writer =
        std::make_unique<RouteWriter>(tables, Nex::Name("kernel"));
    Nex::Owned<NexTable> follower;
    IpAddr const source{"10.0.0.1"}, group{"239.1.1.1"};

  private:
    void SetUp() override { follower.make(Nex::Ptr<Table const>(&writer->table()), this); }
    std::string told_;
};

TEST_F(RouteWriterTest, RoutesAreWrittenOnceByPrefixesOfSourceAndGroup) {
    writer->routeIs(source, group, true);
    writer->routeIs(IpAddr(), group, true);
    EXPECT_EQ(told(), "+10.0.0.1/32,239.1.1.1/32 +0.0.0.0/0,239.1.1.1/32 ");
    writer->routeIs(source, group, true);
    EXPECT_EQ(told(), "");
    writer->routeIs(source, group, false);
    writer->routeIs(source, group, false);
    EXPECT_EQ(told(), "-10.0.0.1/32,239.1.1.1/32 ");
}

TEST_F(RouteWriterTest, TouchedGroupHasItsRoutesToldAgainAndNoOthers) {
    for (char const* each : {"239.1.1.0", "239.1.1.1", "239.1.1.2"})
        writer->routeIs(source, IpAddr(each), true);
    writer->routeIs(IpAddr(), group, true);
    writer->routeIs(IpAddr("255.0.0.1"), group, true);
    told();
    for (int i = 0; i < 2; ++i) {
        writer->doTouch(group);
        EXPECT_EQ(told(), "+0.0.0.0/0,239.1.1.1/32 +10.0.0.1/32,239.1.1.1/32 "
                          "+255.0.0.1/32,239.1.1.1/32 ");
    }
    writer->doTouch(IpAddr("239.1.1.3"));
    EXPECT_EQ(told(), "");
    writer->routeIs(source, group, true);
    EXPECT_EQ(told(), "") << "a touched route is no new one";
}

TEST_F(RouteWriterTest, RoutesLeaveBeforeTheirTable) {
    ASSERT_EQ(tables->keshPtrCount(), 1u);
    writer->routeIs(source, group, true);
    told();
    writer.reset();
    EXPECT_EQ(told(), "-10.0.0.1/32,239.1.1.1/32 ");
    EXPECT_EQ(tables->keshPtrCount(), 0u);
}

} // namespace
} // namespace Agent
