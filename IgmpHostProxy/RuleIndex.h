// Which (source, group) pairs the rules of an access list contribute, and in which mode.
//
// A rule contributes one source to a range of groups: an address under a mask. Under one mask a
// group lies in one range, so a pair is asked for with one lookup for each mask that the rules of
// its source and mode have. Those are few, however many the rules are. Ten thousand single groups
// have one mask between them; ten thousand ranges of different masks would be walked.
#pragma once

#include "Lox/IpAddr.h"
#include "Nex/Map.h"

namespace IgmpHostProxy {

/// What a rule says of each group in its range: that `source` is included, or that it is excluded.
struct RuleEffect {
    bool include;
    Lox::IpAddr source;
    friend bool operator==(RuleEffect const&, RuleEffect const&) = default;
};

/// What rules that count together have in common: two of them cover the same groups in the same
/// way.
struct RuleKey {
    RuleEffect effect;
    std::uint32_t mask;  ///< in host order
    std::uint32_t fixed; ///< the range's bits under the mask
    friend bool operator==(RuleKey const&, RuleKey const&) = default;
};

} // namespace IgmpHostProxy

template <>
struct std::hash<IgmpHostProxy::RuleEffect> {
    std::size_t operator()(IgmpHostProxy::RuleEffect const& effect) const noexcept {
        return std::size_t(effect.source.host()) << 1 | std::size_t(effect.include);
    }
};
template <>
struct std::hash<IgmpHostProxy::RuleKey> {
    std::size_t operator()(IgmpHostProxy::RuleKey const& key) const noexcept {
        std::size_t const range = key.fixed + std::size_t(key.mask) * 0x9E3779B1u;
        return range ^ std::hash<IgmpHostProxy::RuleEffect>()(key.effect) << 31;
    }
};

namespace IgmpHostProxy {

/// Knows effects and ranges, not rules: two rules that say the same count twice. Bits of a range's
/// address outside its mask make no difference. It tells nobody and calls nobody, and holds plain
/// values alone. Rules of one range and effect share an entry; neither copied nor moved.
class RuleIndex {
  public:
    /// Constant time but for what a `Map` takes to grow. Throws what inserting into one throws, and
    /// nothing is counted then; an entry of no rules may stay, which counts as none.
    void add(RuleEffect effect, Lox::IpAddrWithFullMask range) {
        std::uint32_t* const rules =
            rules_.findOrInsert(keyOf(effect, range.mask(), range.address())).first;
        std::uint32_t* const masks =
            masks_.findOrInsert(effect).first->findOrInsert(range.mask()).first;
        ++*rules;
        ++*masks;
    }
    /// Takes back a rule that was added, once for each time; nobody checks that it was. Needs no
    /// memory.
    void del(RuleEffect effect, Lox::IpAddrWithFullMask range) {
        doDrop(rules_, keyOf(effect, range.mask(), range.address()));
        Masks& masks = *masks_.find(effect);
        doDrop(masks, range.mask());
        if (masks.empty()) masks_.take(effect);
    }
    /// How many rules contribute the pair of the effect's source and the group; 0 for none. One
    /// lookup for each mask that rules of this effect have.
    std::uint32_t count(RuleEffect effect, Lox::IpAddr group) const {
        std::uint32_t rules = 0;
        if (Masks const* const masks = masks_.find(effect))
            for (auto const& item : masks->walk())
                if (auto const* const found = rules_.find(keyOf(effect, item.key, group)))
                    rules += *found;
        return rules;
    }

  private:
    using Masks = Nex::SmallMap<std::uint32_t, std::uint32_t, 2>;

    static RuleKey keyOf(RuleEffect effect, std::uint32_t mask, Lox::IpAddr address) {
        return {effect, mask, address.host() & mask};
    }
    static void doDrop(auto& counts, auto const& key) {
        if (--*counts.find(key) == 0) counts.take(key);
    }

    Nex::Map<RuleKey, std::uint32_t> rules_;
    Nex::Map<RuleEffect, Masks> masks_; ///< with how many rules have each
};

} // namespace IgmpHostProxy
