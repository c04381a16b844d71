// Interfaces and VRFs that come and go, at one and at thousands: what one of them costs should not
// depend on how many there are.
#include "Measure.h"
#include "support/InProcessPlatform.h"

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

namespace {

std::string intfName(std::uint32_t at) { return "up" + std::to_string(at); }

/// A device with its interfaces; a proxy machine works on each.
struct IntfWorld : Support::InProcessPlatform {
    explicit IntfWorld(std::uint32_t interfaces, bool up) : count(interfaces) {
        start();
        tables();
        if (up) comeUp();
    }
    void comeUp() {
        for (std::uint32_t at = 0; at < count; ++at) {
            std::string const name = intfName(at);
            config->intfConfigIs(Lox::IntfId(name));
            vrfOfIntf(name, "default");
            addressOf(name, "192.0.2.2");
            kernelDevice(name, at + 1);
            listIntf(name);
        }
        expectProxying(count);
    }
    /// As a device does when it is reconfigured: the interface goes, then its kernel device.
    void go() {
        for (std::uint32_t at = 0; at < count; ++at) {
            config->intfConfigDel(Lox::IntfId(intfName(at)));
            delistIntf(intfName(at));
            kni()->interfaceDel(KernelNetInfo::InterfaceKey(at + 1));
        }
        expectProxying(0);
    }
    void macIs(std::uint32_t at, std::uint8_t last) {
        kni()->interfaceIs(KernelNetInfo::InterfaceKey(at + 1),
                           {at + 1, intfName(at), Lox::EthAddr({2, 0, 0, 0, 1, last})});
    }
    void expectProxying(std::size_t expected) const {
        if (root->igmpHostProxyIntfSm().size() != expected) std::abort();
    }

    std::uint32_t count;
};

/// A device with as many VRFs, each with one interface that the proxy leaves alone.
struct VrfWorld : Support::InProcessPlatform {
    explicit VrfWorld(std::uint32_t vrfs, bool up) : count(vrfs) {
        start();
        if (up) comeUp();
    }
    static std::string name(std::uint32_t at) { return "vrf" + std::to_string(at); }
    void comeUp() {
        for (std::uint32_t at = 0; at < count; ++at) {
            std::string const ns = "ns-" + name(at);
            allVrfStatusLocal->vrfIs(L3::VrfName(name(at)))
                ->networkNamespaceIs(Lox::NamespaceName(ns));
            kernelDevice(intfName(at), 1, ns);
            listIntf(intfName(at), ns);
        }
        expectListed(count - 1);
    }
    void go() {
        for (std::uint32_t at = 0; at < count; ++at) {
            delistIntf(intfName(at));
            allVrfStatusLocal->vrfDel(L3::VrfName(name(at)));
        }
        if (root->kernelVrfIntfStatus(L3::VrfName(name(count - 1)))) std::abort();
    }
    void expectListed(std::uint32_t at) const {
        auto const* const view = root->kernelVrfIntfStatus(L3::VrfName(name(at)));
        if (!view->deviceIntfStatusDir()->intfStatusAndDeviceNameHas(Lox::IntfId(intfName(at))))
            std::abort();
    }

    std::uint32_t count;
};

template <class World>
void comeUp(benchmark::State& state) {
    auto const count = std::uint32_t(state.range(0));
    Bench::perItem(
        state, count, [&] { return std::make_unique<World>(count, false); },
        [](World& world) { world.comeUp(); });
}
template <class World>
void go(benchmark::State& state) {
    auto const count = std::uint32_t(state.range(0));
    Bench::perItem(
        state, count, [&] { return std::make_unique<World>(count, true); },
        [](World& world) { world.go(); });
}
BENCHMARK(comeUp<IntfWorld>)
    ->Name("interfacesComeUp")
    ->RangeMultiplier(10)
    ->Range(1, 10000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(go<IntfWorld>)
    ->Name("interfacesGo")
    ->RangeMultiplier(10)
    ->Range(1, 10000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(comeUp<VrfWorld>)
    ->Name("vrfsComeUp")
    ->RangeMultiplier(8)
    ->Range(1, 4096)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(go<VrfWorld>)
    ->Name("vrfsGo")
    ->RangeMultiplier(8)
    ->Range(1, 4096)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

/// The kernel tells a new MAC address of one interface out of so many.
void oneKernelRecord(benchmark::State& state) {
    IntfWorld world(std::uint32_t(state.range(0)), true);
    std::uint32_t at = 0;
    for (auto unused : state) {
        world.macIs(at % world.count, std::uint8_t(at / world.count + 1));
        ++at;
    }
}
BENCHMARK(oneKernelRecord)->RangeMultiplier(10)->Range(1, 10000);

/// One interface out of as many VRFs is delisted and listed again.
void oneListing(benchmark::State& state) {
    VrfWorld world(std::uint32_t(state.range(0)), true);
    for (auto unused : state) {
        world.delistIntf(intfName(0));
        world.listIntf(intfName(0), "ns-" + VrfWorld::name(0));
    }
    world.expectListed(0);
}
BENCHMARK(oneListing)->RangeMultiplier(8)->Range(1, 4096);

} // namespace
