// What the tests of the library share: a platform in the process whose time is moved by hand, the
// text trace, and dumps of records.
#pragma once

#include "IgmpHostProxy/Trace.h"
#include "Nex/System.h"
#include "support/InProcessPlatform.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace IgmpHostProxy {

using Lines = std::vector<std::string>;

inline Lox::IpAddr ip(std::string_view dotted) { return Lox::IpAddr(dotted); }
inline Lox::IntfId const up0("up0");
inline Lox::IntfId const up1("up1");
inline Lox::IpAddr const groupG = ip("239.1.1.1");
inline Lox::IpAddr const sourceS = ip("10.0.0.1");

/// The library's text trace while it lives: "LEVEL TEXT" for each line up to a level.
class TraceLog final : public Nex::TraceSink {
  public:
    explicit TraceLog(unsigned level) {
        traceHandle.levelIs(level);
        Nex::TraceHandle::sinkIs(this);
    }
    ~TraceLog() {
        traceHandle.levelIs(0);
        Nex::TraceHandle::sinkIs(nullptr);
    }
    void onTrace(Nex::TraceHandle const&, unsigned level, std::string const& text) override {
        lines_.push_back(std::to_string(level) + " " + text);
    }
    Lines take() { return std::exchange(lines_, {}); }

  private:
    Lines lines_;
};

/// A record with all below it, one line for each value, in an order that does not depend on how
/// the record came about. Change stamps do, and are left out.
class Dump {
  public:
    template <class Record>
    static Lines of(Record const& record) {
        Lines lines;
        record.nexVisit(Dump("", lines));
        std::sort(lines.begin(), lines.end());
        return lines;
    }

    template <class T>
    void attr(std::string name, T const& value) const {
        if constexpr (requires { value->nexVisit(*this); }) {
            if (value) value->nexVisit(Dump(prefix_ + name + "/", lines_));
        } else if constexpr (std::is_enum_v<T>) {
            put(name + " = " + std::to_string(unsigned(value)));
        } else if (!name.ends_with("ersion")) {
            put(name + " = " + Nex::textOf(value));
        }
    }
    void set(std::string const& name, auto walk) const {
        for (auto const& key : walk) put(name + " has " + Nex::textOf(key));
    }
    void map(std::string const& name, auto walk) const {
        for (auto const& item : walk)
            put(name + "[" + Nex::textOf(item.key) + "] = " + std::to_string(item.value));
    }
    void records(std::string const& name, auto makeWalk) const {
        for (auto const& item : makeWalk()) {
            std::string const entry = name + "[" + Nex::textOf(item.key) + "]";
            put(entry);
            item.value->nexVisit(Dump(prefix_ + entry + "/", lines_));
        }
    }

  private:
    Dump(std::string prefix, Lines& lines) : prefix_(std::move(prefix)), lines_(lines) {}
    void put(std::string const& line) const { lines_.push_back(prefix_ + line); }

    std::string prefix_;
    Lines& lines_;
};

/// A platform whose kernel tables can be filled before anybody mounts them.
struct World : Support::InProcessPlatform {
    World() {
        entityManager->factoryIs("KernelNetInfo::Status",
                                 [this](Nex::String const& path) { return kniTable(path); });
    }
    Nex::Ptr<KernelNetInfo::Status> kniTable(Nex::String const& path) {
        auto& table = *kniTables.findOrInsert(path).first;
        if (!table) table = KernelNetInfo::Status::StatusIs(path);
        return table;
    }
    void kernelDevice(std::string const& device, std::uint32_t ifIndex,
                      std::string const& ns = "default") {
        kniTable("kni/ns/" + ns + "/status")
            ->interfaceIs(KernelNetInfo::InterfaceKey(ifIndex), {ifIndex, device, macOf(ifIndex)});
    }
    void vrf(std::string const& name, std::string const& ns) {
        allVrfStatusLocal->vrfIs(L3::VrfName(name))->networkNamespaceIs(Lox::NamespaceName(ns));
    }
    /// Everything that a usable interface has. The VRF "default" lies in the namespace of that
    /// name, any other in "ns-" and its name.
    void usableIntf(std::string const& intf, std::uint32_t ifIndex,
                    std::string const& vrfName = "default") {
        std::string const ns = vrfName == "default" ? vrfName : "ns-" + vrfName;
        vrfOfIntf(intf, vrfName);
        addressOf(intf, "192.0.2." + std::to_string(ifIndex));
        kernelDevice(intf, ifIndex, ns);
        listIntf(intf, ns);
    }
    /// Moves the time on, firing all timers on the way at their times.
    void pass(double seconds) {
        double const end = time.now() + seconds;
        for (;;) {
            double const next = std::min(clock->nextExpiry(), timerWheel->nextExpiry());
            if (next > end) break;
            time.nowIs(std::max(next, time.now()));
            clock->timeIs(time.now());
            timerWheel->timeIs(time.now());
        }
        time.nowIs(end);
    }
    /// The whole state that the library writes.
    Lines dump() const {
        Lines lines = Dump::of(*status);
        Lines const hosts = Dump::of(*hostDir);
        lines.insert(lines.end(), hosts.begin(), hosts.end());
        return lines;
    }

    Nex::ManualTime time{100};
    Nex::Map<Nex::String, Nex::Ptr<KernelNetInfo::Status>> kniTables;
};

/// Writes a source into one of an entry's lists, or takes it out.
inline void doWrite(GroupSource& entry, bool add, bool include, Lox::IpAddr source) {
    auto const write = add && include ? &GroupSource::includeSourceListIs
                       : add          ? &GroupSource::excludeSourceListIs
                       : include      ? &GroupSource::includeSourceListDel
                                      : &GroupSource::excludeSourceListDel;
    (entry.*write)(source);
}

/// Takes a source back as the writer of the configuration does: out of the configured list, into
/// the deleted one, and out of that again.
inline void takeBack(IntfConfig& config, Lox::IpAddr source, Lox::IpAddr group,
                     bool include = true) {
    if (GroupSource* const configured = config.groupSourceList(group))
        doWrite(*configured, false, include, source);
    doWrite(*config.deletedGroupSourceListIs(group), true, include, source);
    config.deletedGroupSourceListDel(group);
}

} // namespace IgmpHostProxy
