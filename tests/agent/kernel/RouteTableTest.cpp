#include "agent/kernel/RouteTable.h"

#include "agent/kernel/NetlinkMessage.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <random>

namespace Agent {
namespace {

using Lox::IpAddr;
using Message = NetlinkMessage;

/// What the kernel says of one route.
struct KernelRoute {
    IpAddr source;
    IpAddr group;
    int incoming;
    std::vector<int> outputs;
};

Message routeMessage(std::uint16_t type, KernelRoute const& route, unsigned flags = 0,
                     std::uint8_t table = RT_TABLE_DEFAULT,
                     std::uint8_t family = RTNL_FAMILY_IPMR) {
    rtmsg header{};
    header.rtm_family = family;
    header.rtm_src_len = header.rtm_dst_len = 32;
    header.rtm_table = table;
    header.rtm_flags = flags;
    Message message(type, header);
    message.with(RTA_TABLE, std::uint32_t(table));
    message.with(RTA_SRC, route.source).with(RTA_DST, route.group);
    if (route.incoming != 0) message.with(RTA_IIF, std::uint32_t(route.incoming));
    std::vector<rtnexthop> hops;
    for (int const ifindex : route.outputs) hops.push_back({sizeof(rtnexthop), 0, 1, ifindex});
    return message.with(RTA_MULTIPATH, hops.size() * sizeof(rtnexthop), hops.data());
}

std::string nameOf(IpAddr source, IpAddr group) {
    return "(" + source.stringValue() + ", " + group.stringValue() + ")";
}

struct Routes {
    Routes() { table.setFilter({true, false, {7}}); }

    void notify(KernelRoute const& route, std::uint16_t type = RTM_NEWROUTE) {
        table.readMessage(routeMessage(type, route).get(), false);
    }

    std::set<std::string> announced;
    RouteTable table{[this](IpAddr source, IpAddr group, bool is) {
        std::string const name = nameOf(source, group);
        EXPECT_TRUE(is ? announced.insert(name).second : announced.erase(name) != 0)
            << name << " is told twice";
    }};
};

TEST(RouteTableTest, OtherTablesAndKindsOfRoutesTellNothing) {
    KernelRoute const plain{IpAddr("10.0.0.1"), IpAddr("239.1.1.1"), 7, {8}};
    Routes routes;
    routes.notify(plain);
    Message const others[] = {
        routeMessage(RTM_DELROUTE, plain, 0, 100),
        routeMessage(RTM_DELROUTE, plain, 0, RT_TABLE_DEFAULT, AF_INET),
        routeMessage(RTM_GETROUTE, plain),
        routeMessage(RTM_NEWROUTE, {IpAddr(), IpAddr(), 7, {8}}), // any group
        routeMessage(RTM_NEWROUTE, {IpAddr("10.0.0.2"), plain.group, 7, {8}}, RTNH_F_UNRESOLVED),
    };
    for (Message const& each : others) routes.table.readMessage(each.get(), false);
    EXPECT_EQ(routes.announced, std::set{nameOf(plain.source, plain.group)});
    EXPECT_EQ(routes.table.routeCount(), 1u);
}

/// A kernel with a list of routes, a dump that goes on by counting, and notifications that may be
/// lost; and the filter, applied naively.
class RouteModel : public Routes {
  public:
    explicit RouteModel(unsigned seed) : random_(seed) {}

    void doRandomStep() {
        switch (pick(12)) {
        case 0:
            doSetFilter();
            break;
        case 1:
            table.doReview(pick(4));
            break;
        case 2:
        case 3:
        case 4:
            table.reading() ? doDumpPiece(1 + pick(3)) : doBeginReading();
            break;
        default:
            doChangeRoute(pick(20) == 0);
        }
    }
    void doBeginReading() {
        table.beginReading();
        EXPECT_TRUE(table.questionTake(1).all);
        place_ = 0;
        whole_ = calm_ = once_ = true;
    }
    void doFinishReading() {
        while (table.reading()) doDumpPiece(1);
    }
    void expectNaive() {
        table.doReview(SIZE_MAX);
        std::set<std::string> naive;
        for (auto const& each : kernel_) {
            bool const incoming =
                filter_.anyIncoming || filter_.proxyInterfaces.count(each.incoming) != 0;
            if (each.incoming != 0 && incoming && (!filter_.requireOutput || !each.outputs.empty()))
                naive.insert(nameOf(each.source, each.group));
        }
        EXPECT_EQ(announced, naive);
        EXPECT_EQ(table.routeCount(), kernel_.size());
    }

  private:
    unsigned pick(unsigned count) { return unsigned(random_()) % count; }
    void doSetFilter() {
        RouteFilter const before =
            std::exchange(filter_, RouteFilter{pick(2) == 0, pick(4) == 0, {}});
        for (int const ifindex : {1, 2, 3})
            if (pick(2) == 0) filter_.proxyInterfaces.insert(ifindex);
        bool const alike = before.requireOutput == filter_.requireOutput &&
                           before.anyIncoming == filter_.anyIncoming;
        if (!alike || filter_.proxyInterfaces.size() > 1) return table.setFilter(filter_);
        for (int const ifindex : {1, 2, 3}) // it may be told by one interface after the other
            table.setProxyInterface(ifindex, filter_.proxyInterfaces.count(ifindex) != 0);
    }
    void doChangeRoute(bool lost) {
        KernelRoute route{
            IpAddr::fromHost(pick(6)), IpAddr::fromHost(0xEF000001 + pick(3)), int(pick(4)), {}};
        if (pick(2) == 0) route.outputs = {9};
        auto const found = std::find_if(kernel_.begin(), kernel_.end(), [&](auto const& each) {
            return each.source == route.source && each.group == route.group;
        });
        bool const gone = found != kernel_.end() && pick(2) == 0;
        if (gone)
            kernel_.erase(found);
        else if (found != kernel_.end())
            *found = route;
        else
            kernel_.push_back(route);
        if (lost)
            whole_ = false;
        else
            notify(route, gone ? RTM_DELROUTE : RTM_NEWROUTE);
    }
    void dump(KernelRoute const& route) {
        table.readMessage(routeMessage(RTM_NEWROUTE, route).get(), true);
    }
    /// What the kernel puts into one piece of its dump is read at the next.
    void doDumpPiece(unsigned length) {
        for (auto const& each : std::exchange(piece_, {})) dump(each);
        for (; length > 0 && place_ < kernel_.size(); --length) piece_.push_back(kernel_[place_++]);
        if (!piece_.empty()) return;
        place_ = 0;
        if (!whole_) { // which proves nothing
            table.doReview(SIZE_MAX);
            std::size_t const before = table.routeCount();
            table.endReading(false);
            table.doReview(SIZE_MAX);
            EXPECT_EQ(table.routeCount(), before);
            return;
        }
        for (;;) {
            auto const question = table.questionTake(1 + pick(3));
            if (question.all) { // for the last time, so that it had better skip nothing
                EXPECT_TRUE(std::exchange(once_, false)) << "or it would never end";
                calm_ = pick(2) == 0;
                if (!calm_) return;
                piece_ = kernel_;
                place_ = kernel_.size();
                return doDumpPiece(0);
            }
            if (question.names.empty()) {
                table.endReading(true);
                return calm_ ? expectNaive() : void();
            }
            for (RouteName const& name : question.names)
                for (auto const& each : kernel_)
                    if (each.source == name.source && each.group == name.group) dump(each);
        }
    }

    std::mt19937 random_;
    std::vector<KernelRoute> kernel_, piece_;
    RouteFilter filter_{true, false, {7}};
    std::size_t place_ = 0;
    bool whole_ = true; ///< nothing was lost since the reading began
    bool calm_ = true;  ///< nor has its second dump skipped anything
    bool once_ = true;  ///< there has been no second dump
};

TEST(RouteModelTest, AnyOrderOfEventsEndsWithWhatTheKernelHolds) {
    for (unsigned seed = 0; seed < 3000 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        RouteModel model(seed);
        for (int round = 0; round < 5; ++round) {
            for (int i = 0; i < 50; ++i) model.doRandomStep();
            model.doFinishReading();
            model.doBeginReading();
            model.doFinishReading();
            model.expectNaive();
        }
    }
}

} // namespace
} // namespace Agent
