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
inline Lox::IpAddr const groupG = ip("239.1.1.1");

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
