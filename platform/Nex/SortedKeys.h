// Keys in ascending order, in runs of neighbours: a step from one to the next is one in an array,
// and a key that comes or goes moves no more than its own run.
#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace Nex {

/// Keys are plain values in the order of `<`, of few octets each: they are moved about. To find one
/// takes two binary searches. Runs that have become small are joined, so room is given back as keys
/// go. Nothing is locked; reading changes nothing.
///
/// Nothing here is stable: a place and a key's reference are good until a key comes or goes.
template <class Key>
class SortedKeys {
  public:
    struct Place {
        std::size_t run = 0, at = 0;
    };
    /// The place of the least key; the end where there is none.
    Place begin() const { return {}; }
    bool isEnd(Place place) const { return place.run == runs_.size(); }
    /// Of a place that is not the end, nor is that of next().
    Key const& key(Place place) const { return runs_[place.run][place.at]; }
    /// The end behind the last key. Constant time.
    Place next(Place place) const {
        return place.at + 1 < runs_[place.run].size() ? Place{place.run, place.at + 1}
                                                      : Place{place.run + 1, 0};
    }
    /// The place of the least key that is not below this one; the end where all are.
    Place lowerBound(Key const& key) const {
        std::size_t const run = runOf(key);
        if (run == runs_.size()) return {};
        Run const& keys = runs_[run];
        auto const at = std::size_t(std::lower_bound(keys.begin(), keys.end(), key) - keys.begin());
        return at < keys.size() ? Place{run, at} : Place{run + 1, 0};
    }
    /// The place of the least key that is above this one; the end where none is.
    Place upperBound(Key const& key) const {
        Place const place = lowerBound(key);
        return isEnd(place) || key < this->key(place) ? place : next(place);
    }

    /// A key that is not there yet, which nobody checks: it would stand there twice. Moves no more
    /// than the keys of a run, and when one is full the list of runs. Throws std::bad_alloc, and
    /// nothing has changed then.
    void insert(Key const& key) {
        if (runs_.empty()) {
            doAddRun(0, Run{key});
            return;
        }
        std::size_t run = runOf(key);
        if (runs_[run].size() == most) {
            // Keys that come in ascending order leave full runs behind.
            bool const last = run + 1 == runs_.size() && runs_[run].back() < key;
            Run upper;
            upper.reserve(most);
            if (last)
                upper.push_back(key);
            else
                upper.assign(runs_[run].begin() + most / 2, runs_[run].end());
            doAddRun(run + 1, std::move(upper));
            if (last) return;
            runs_[run].resize(most / 2);
            run += !(key < firsts_[run + 1]);
        }
        Run& keys = runs_[run];
        keys.insert(std::lower_bound(keys.begin(), keys.end(), key), key);
        firsts_[run] = keys.front();
    }
    /// Takes a key out, and returns whether it was there; one that was not is no error. Moves as
    /// much as an insertion. Allocates nothing.
    bool erase(Key const& key) {
        Place const place = lowerBound(key);
        if (isEnd(place) || key < this->key(place)) return false;
        Run& keys = runs_[place.run];
        keys.erase(keys.begin() + std::ptrdiff_t(place.at));
        if (keys.empty()) {
            doEraseRun(place.run);
            return true;
        }
        firsts_[place.run] = keys.front();
        if (place.run + 1 < runs_.size()) doMerge(place.run);
        if (place.run > 0) doMerge(place.run - 1);
        return true;
    }

  private:
    using Run = std::vector<Key>;
    static constexpr std::ptrdiff_t most = 256; ///< keys of a run: four kilobytes of routes

    /// The run that the key belongs to; the end where there is none at all.
    std::size_t runOf(Key const& key) const {
        auto const after = std::upper_bound(firsts_.begin(), firsts_.end(), key);
        return std::size_t(after - firsts_.begin()) - (after != firsts_.begin() ? 1 : 0);
    }
    void doAddRun(std::size_t at, Run keys) {
        firsts_.insert(firsts_.begin() + std::ptrdiff_t(at), keys.front());
        try {
            runs_.insert(runs_.begin() + std::ptrdiff_t(at), std::move(keys));
        } catch (...) {
            firsts_.erase(firsts_.begin() + std::ptrdiff_t(at));
            throw;
        }
    }
    void doEraseRun(std::size_t at) {
        runs_.erase(runs_.begin() + std::ptrdiff_t(at));
        firsts_.erase(firsts_.begin() + std::ptrdiff_t(at));
    }
    /// Makes one of this run and the next, where they are small and there is room.
    void doMerge(std::size_t at) {
        Run& keys = runs_[at];
        Run const& more = runs_[at + 1];
        std::size_t const both = keys.size() + more.size();
        if (both > most / 2 || both > keys.capacity()) return;
        keys.insert(keys.end(), more.begin(), more.end());
        doEraseRun(at + 1);
    }

    std::vector<Run> runs_;   ///< none is empty
    std::vector<Key> firsts_; ///< of the runs, where a key is searched
};

} // namespace Nex
