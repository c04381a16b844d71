// One interface as plain lists: what is configured, counted, announced and programmed. Slow and
// without sharing between the rules, so that each can be read against its wording.
#pragma once

#include "Library.h"

#include <map>

namespace IgmpHostProxy {

/// Addresses in the order in which they came.
class AddrList {
  public:
    bool has(Lox::IpAddr a) const { return std::count(addrs.begin(), addrs.end(), a) > 0; }
    bool add(Lox::IpAddr a) {
        if (has(a)) return false;
        addrs.push_back(a);
        return true;
    }
    bool del(Lox::IpAddr a) { return std::erase(addrs, a) > 0; }

    std::vector<Lox::IpAddr> addrs;
};

enum class Mode { include, exclude };

struct ModelLists {
    AddrList include, exclude;
    AddrList& of(Mode mode) { return mode == Mode::include ? include : exclude; }
    bool empty() const { return include.addrs.empty() && exclude.addrs.empty(); }
};

class MergeModel {
  public:
    virtual ~MergeModel() = default;

    void configure(Lox::IpAddr group) {
        if (configured_.try_emplace(group).second) insertStatus(group);
    }
    void unconfigure(Lox::IpAddr group) { configured_.erase(group); }
    void configure(Lox::IpAddr group, Lox::IpAddr source, Mode mode) {
        configure(group);
        if (!configured_[group].of(mode).add(source)) return;
        add(source, group, mode);
    }
    /// Takes the source out of the configured list, which tells nobody.
    void unconfigure(Lox::IpAddr group, Lox::IpAddr source, Mode mode) {
        if (configured_.count(group) > 0) configured_[group].of(mode).del(source);
    }
    void remove(Lox::IpAddr group, Lox::IpAddr source, Mode mode) {
        bool const any = source == anySource;
        if (count(source, group) == 0) {
            any&& mode == Mode::exclude ? delUncounted(group) : delSource(group, source, mode);
            return eraseIfEmpty(group);
        }
        std::uint32_t const left = countDown(source, group);
        if (left > 0 && wanted(source, group, mode)) return;
        if (any) return removeAny(group, mode, left);
        if (left == 0) forget(source, group);
        delSource(group, source, mode);
        if (left > 0) {
            addSource(group, source, mode == Mode::include ? Mode::exclude : Mode::include);
        } else if (!groupCounted(group)) {
            eraseIfEmpty(group);
        }
    }
    /// The forwarding table puts a source in, uncounted.
    void contribute(Lox::IpAddr group, Lox::IpAddr source, Mode mode) {
        insertStatus(group);
        addSource(group, source, mode);
    }

    std::uint32_t count(Lox::IpAddr source, Lox::IpAddr group) const {
        for (auto const& counted : counts_)
            if (counted.source == source && counted.group == group) return counted.count;
        return 0;
    }
    ModelLists const* status(Lox::IpAddr group) const {
        auto const found = status_.find(group);
        return found == status_.end() ? nullptr : &found->second;
    }
    struct Record {
        unsigned mode = 0;
        std::uint32_t version = 0;
        AddrList sources;
    };
    Record const* record(Lox::IpAddr group) const {
        auto const found = host_.find(group);
        return found == host_.end() ? nullptr : &found->second;
    }

  protected:
    struct Counted {
        Lox::IpAddr source, group;
        std::uint32_t count;
    };

    /// Whether somebody wants the pair still.
    virtual bool wanted(Lox::IpAddr source, Lox::IpAddr group, Mode mode) {
        return configured_.count(group) > 0 && configured_[group].of(mode).has(source);
    }
    /// Whether the pair comes back as any source leaves.
    virtual bool restorable(Lox::IpAddr source, Lox::IpAddr group, Mode mode) {
        return wanted(source, group, mode);
    }

    // References
    bool groupCounted(Lox::IpAddr group) const {
        return std::any_of(counts_.begin(), counts_.end(),
                           [&](Counted const& counted) { return counted.group == group; });
    }
    void countUp(Lox::IpAddr source, Lox::IpAddr group) {
        for (auto& counted : counts_)
            if (counted.source == source && counted.group == group) {
                ++counted.count;
                return;
            }
        counts_.push_back({source, group, 1});
    }
    std::uint32_t countDown(Lox::IpAddr source, Lox::IpAddr group) {
        for (auto& counted : counts_)
            if (counted.source == source && counted.group == group) return --counted.count;
        return 0;
    }
    void forget(Lox::IpAddr source, Lox::IpAddr group) {
        std::erase_if(counts_, [&](Counted const& counted) {
            return counted.source == source && counted.group == group;
        });
    }

    // The merge
    void add(Lox::IpAddr source, Lox::IpAddr group, Mode mode) {
        insertStatus(group);
        mode == Mode::include ? addInclude(source, group) : addExclude(source, group);
    }
    void addInclude(Lox::IpAddr source, Lox::IpAddr group) {
        ModelLists& entry = status_[group];
        if (!groupCounted(group)) delAllSources(group);
        countUp(source, group);
        if (source == anySource && entry.include.has(anySource)) return;
        if (source != anySource && entry.include.has(anySource)) return;
        if (source != anySource) delSource(group, anySource, Mode::exclude);
        if (source == anySource) {
            delAllSources(group);
        } else if (entry.exclude.has(source)) {
            return;
        }
        addSource(group, source, Mode::include);
    }
    void addExclude(Lox::IpAddr source, Lox::IpAddr group) {
        ModelLists& entry = status_[group];
        if (!groupCounted(group)) delAllSources(group);
        countUp(source, group);
        if (entry.include.has(anySource) && count(anySource, group) > 0) return;
        if (source == anySource && entry.exclude.has(anySource)) return;
        if (source == anySource && !entry.empty()) return;
        if (source != anySource) {
            delSource(group, anySource, Mode::exclude);
            delSource(group, source, Mode::include);
        }
        addSource(group, source, Mode::exclude);
    }
    void removeAny(Lox::IpAddr group, Mode mode, std::uint32_t left) {
        // In exclude mode all references are forgotten at once.
        if (left == 0 || mode == Mode::exclude) forget(anySource, group);
        if (status_.count(group) == 0) return;
        delSource(group, anySource, mode);
        ModelLists local = restored(group);
        if (mode == Mode::include &&
            (local.exclude.addrs.size() >= 2 || !local.include.addrs.empty()))
            local.exclude.del(anySource);
        for (auto const source : local.include.addrs) addSource(group, source, Mode::include);
        for (auto const source : local.exclude.addrs) addSource(group, source, Mode::exclude);
        eraseIfEmpty(group);
    }
    ModelLists restored(Lox::IpAddr group) {
        ModelLists local;
        for (auto const& counted : counts_) {
            if (counted.group != group) continue;
            if (restorable(counted.source, group, Mode::exclude)) {
                local.exclude.add(counted.source);
            } else if (restorable(counted.source, group, Mode::include)) {
                local.include.add(counted.source);
            }
        }
        return local;
    }

    // The status, each change passed on to the host
    void insertStatus(Lox::IpAddr group) {
        if (status_.try_emplace(group).second) announce(group);
    }
    void eraseStatus(Lox::IpAddr group) {
        if (status_.erase(group) > 0) announce(group);
    }
    void eraseIfEmpty(Lox::IpAddr group) {
        if (status_.count(group) > 0 && status_[group].empty()) eraseStatus(group);
    }
    void addSource(Lox::IpAddr group, Lox::IpAddr source, Mode mode) {
        if (status_.count(group) > 0 && status_[group].of(mode).add(source))
            program(group, source, mode);
    }
    void delSource(Lox::IpAddr group, Lox::IpAddr source, Mode mode) {
        if (status_.count(group) > 0 && status_[group].of(mode).del(source))
            program(group, source, mode);
    }
    void delSources(Lox::IpAddr group, Mode mode) {
        for (auto const source : std::vector(status_[group].of(mode).addrs))
            delSource(group, source, mode);
    }
    void delAllSources(Lox::IpAddr group) {
        delSources(group, Mode::include);
        delSources(group, Mode::exclude);
    }
    void delUncounted(Lox::IpAddr group) {
        if (status_.count(group) == 0) return;
        for (Mode const mode : {Mode::include, Mode::exclude})
            for (auto const source : std::vector(status_[group].of(mode).addrs))
                if (count(source, group) == 0) delSource(group, source, mode);
    }

    // The host
    void announce(Lox::IpAddr group) {
        bool const any = status_.count(group) > 0 && status_[group].include.has(anySource);
        if (status_.count(group) == 0 || (any && host_.count(group) > 0)) {
            host_.erase(group);
        } else {
            host_[group].mode = 2;
            ++host_[group].version;
        }
    }
    void program(Lox::IpAddr group, Lox::IpAddr source, Mode mode) {
        if (mode == Mode::include && source == anySource) announce(group);
        if (host_.count(group) == 0) return;
        Record& record = host_[group];
        if (status_[group].include.has(source) || status_[group].exclude.has(source)) {
            if (mode == Mode::include || source != anySource) record.sources.add(source);
            record.mode = mode == Mode::include ? 1 : 2;
        } else {
            record.sources.del(source);
        }
        ++record.version;
    }

    std::map<Lox::IpAddr, ModelLists> configured_, status_;
    std::map<Lox::IpAddr, Record> host_;
    std::vector<Counted> counts_;
};

} // namespace IgmpHostProxy
