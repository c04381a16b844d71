// The directories of device names, over every order in which their inputs may arrive.
#include "Interface/NetNsIntfStatusManager.h"
#include "TestRecords.h"

#include <array>
#include <gtest/gtest.h>
#include <random>

namespace Interface {
namespace {

using KernelNetInfo::InterfaceKey;

/// A directory of the namespace that its kernel table is called by, and who watches it.
struct Directory : Nex::Listener<DeviceIntfStatusDir::Notifiee> {
    Directory(Nex::Ptr<KernelNetInfo::Status> table, std::function<void(Directory&)> told)
        : Listener(DeviceIntfStatusDir::DeviceIntfStatusDirIs("directory")),
          kni(std::move(table)),
          act(std::move(told)) {}
    void onIntfStatusAndDeviceName(Lox::IntfId) override { act(*this); }
    void onIntfToDeviceName(std::uint32_t) override { act(*this); }
    Lox::NamespaceName ns() const { return Lox::NamespaceName(kni->name()); }

    Nex::Ptr<KernelNetInfo::Status> const kni;
    std::function<void(Directory&)> const act;
    bool followed = false; ///< its manager fills it
    bool silent = false;   ///< and has ended before the change under way
};

/// Changes the inputs at random, now and then also from inside a notification, and managers with
/// them. Whoever watches may throw.
class Inputs {
  public:
    explicit Inputs(unsigned seed) : random_(seed), throws_(draw(2) == 0) {
        using KernelNetInfo::Status;
        auto const one = Status::StatusIs("ns1");
        // Two VRFs may have one namespace; but of what one of them throws at, the other never
        // hears.
        directories_ = {make(one), make(Status::StatusIs("ns2")),
                        make(throws_ ? Status::StatusIs("ns3") : one)};
    }
    /// In place of managers that are there; what was there before them is followed, too.
    void rootIs(bool active) {
        active_ = active;
        root_ = Nex::newObject<NetNsIntfStatusManagerRoot>(all_, allLocal_, active);
        for (auto& directory : directories_) directory = make(directory->kni);
    }
    void change() {
        bool caught = false;
        nested_ = thrown_ = false;
        at_ = draw(4);
        try {
            step();
        } catch (Nex::RangeException const&) {
            caught = true;
        }
        EXPECT_EQ(caught, thrown_) << "whoever made the change hears of it";
        for (auto const& directory : directories_) {
            if (directory->followed) check(*directory);
            directory->silent = !directory->followed;
        }
    }

  private:
    unsigned draw(unsigned count) { return unsigned(random_()) % count; }
    Nex::Ptr<Directory> make(Nex::Ptr<KernelNetInfo::Status> const& table) {
        return Nex::newObject<Directory>(table, [this](Directory& told) { hear(told); });
    }
    void step() {
        Nex::String const name(1, char('a' + draw(3)));
        Lox::IntfId const intfId(name);
        // Two device names of each interface's own, so that no two want one device.
        Nex::String const device = name + char('0' + draw(2));
        Nex::Ptr<Directory>& directory = directories_[draw(3)];
        switch (draw(9)) {
        case 0:
            return all_->intfStatusIs(intfId)->operUpIs(draw(2) == 0);
        case 1:
            return all_->intfStatusDel(intfId);
        case 2:
            return allLocal_->intfStatusLocalDel(intfId);
        case 3: {
            auto const local = allLocal_->intfStatusLocalIs(intfId);
            local->networkNamespaceIs(Lox::NamespaceName("ns" + Nex::textOf(1 + draw(3))));
            return local->deviceNameIs(device);
        }
        case 4: // what an ended manager has listed stays there
            if (!directory->followed) directory = make(directory->kni);
            return start(directory);
        case 5:
            if (draw(4) == 0) end(*directory, draw(2) == 0);
            return;
        default:
            InterfaceKey const key(1 + draw(5));
            if (draw(3) == 0) return directory->kni->interfaceDel(key);
            return directory->kni->interfaceIs(key, {key.ifIndex(), device, {}});
        }
    }
    void start(Nex::Ptr<Directory> directory) {
        directory->followed = active_;
        Nex::Ptr<NetNsIntfStatusManager> const first = root_->intfStatusManager(directory->ns());
        root_->intfStatusManagerIs(directory->notifier(), directory->kni, directory->ns());
        EXPECT_FALSE(first && first->deviceIntfStatusDir() == directory->notifier() &&
                     first == root_->intfStatusManager(directory->ns()))
            << "does not make way";
    }
    void end(Directory const& directory, bool everyOne) {
        held_.push_back(root_->intfStatusManager(directory.ns()));
        root_->intfStatusManagerDel(directory.ns(), everyOne ? nullptr : directory.notifier());
        EXPECT_TRUE(!everyOne || !root_->intfStatusManager(directory.ns()));
        for (auto const& each : directories_)
            if (each.get() == &directory || (everyOne && each->kni == directory.kni))
                each->followed = false;
    }
    /// An interface is in the directories of one namespace at a time, whichever way it moves.
    void hear(Directory const& told) {
        EXPECT_FALSE(told.silent);
        if (throws_ && draw(4) == 0) {
            thrown_ = true;
            throw Nex::RangeException("as told");
        }
        for (auto const& item : told.notifier()->intfStatusAndDeviceName()) {
            if (nested_) break; // halves of entries may be seen
            EXPECT_EQ(told.notifier()->intfToDeviceName(item.value.ifIndex).intfId, item.key);
            for (auto const& other : directories_)
                EXPECT_FALSE(other->followed && other->kni != told.kni &&
                             other->notifier()->intfStatusAndDeviceNameHas(item.key));
        }
        if (at_-- != 0) return;
        nested_ = true;
        step();
    }
    /// Whether it has the entries that the inputs demand; an index must name the device.
    void check(Directory const& in) const {
        std::size_t count = 0;
        for (auto const& item : all_->intfStatus()) {
            auto const* const local = allLocal_->intfStatusLocal(item.key);
            bool demanded = false;
            if (item.value->operUp() && local && local->networkNamespace() == in.ns())
                for (auto const& device : in.kni->interface())
                    demanded |= device.value.deviceName == local->deviceName();
            auto const entry = in.notifier()->intfStatusAndDeviceName(item.key);
            ASSERT_EQ(entry.ifIndex != 0, demanded) << item.key;
            if (!demanded) continue;
            ++count;
            EXPECT_EQ(entry.intfStatus, item.value);
            EXPECT_EQ(entry.deviceName, local->deviceName());
            EXPECT_EQ(in.kni->interface(InterfaceKey(entry.ifIndex)).deviceName, entry.deviceName);
            EXPECT_EQ(in.notifier()->intfToDeviceName(entry.ifIndex),
                      (IntfToDeviceName{item.key, entry.deviceName}));
        }
        EXPECT_EQ(in.notifier()->intfStatusAndDeviceNameCount(), count);
        EXPECT_EQ(in.notifier()->intfToDeviceNameCount(), count);
    }

    std::mt19937 random_;
    bool const throws_;
    bool active_ = false, nested_ = false, thrown_ = false;
    unsigned at_ = 0; ///< the notification in which another step is taken
    Nex::Ptr<AllIntfStatusDir> all_ = AllIntfStatusDir::AllIntfStatusDirIs("all");
    Nex::Ptr<AllIntfStatusLocalDir> allLocal_ =
        AllIntfStatusLocalDir::AllIntfStatusLocalDirIs("local");
    std::array<Nex::Ptr<Directory>, 3> directories_;
    Nex::Ptr<NetNsIntfStatusManagerRoot> root_;
    std::vector<Nex::Ptr<NetNsIntfStatusManager>> held_; ///< of those that have ended
};

TEST(DeviceDirectoryModel, FollowsItsInputsThroughEveryHistory) {
    for (unsigned seed = 0; seed < 200 && !testing::Test::HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        Inputs inputs(seed);
        for (unsigned steps = 0; steps < 100 && !testing::Test::HasFailure(); ++steps) {
            if (steps % 50 == 0) inputs.rootIs(seed % 8 != 7);
            inputs.change();
        }
    }
}

} // namespace
} // namespace Interface
