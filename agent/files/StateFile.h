// The file that tells a later run of the agent what routers may hold from this one: for each
// interface the groups announced, with their sources. Its format alone; StateKeeper.h has the
// times at which it is written.
//
// All numbers are big-endian. "ihproxyd", a 32-bit format version; for each interface the length of
// its name in an octet and the name, the length of its namespace's name in two and that name, a
// 32-bit count of groups, and the groups: address, 32 bits of the number of sources, sources. Of
// these 32 bits the top one is set for EXCLUDE, the next one for a group that version 2 told of.
// Then a zero octet, and 64 bits of FNV-1a over all before. Nothing follows.
#pragma once

#include "agent/igmp/GroupRecord.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

struct InterfaceState {
    std::string name;          ///< 1 to 255 octets
    std::string namespaceName; ///< as the configuration has it; empty for the agent's own
    RecordList groups;         ///< IS_IN, IS_EX and members, a group possibly more than once
};

/// Builds the text of a file, piece by piece.
class StateText {
  public:
    StateText();
    /// Leaves out groups that would make the file longer than mostOctets. An interface may be added
    /// several times, with some of its groups each.
    void addInterface(InterfaceState const& interface);
    /// Whether any was left out.
    bool truncated() const { return truncated_; }
    /// Nothing is added afterwards.
    void endAdd();
    /// What has been added since the last call.
    std::string take();

    /// Several times what 65,536 groups take.
    static constexpr std::size_t mostOctets = 16 << 20;

  private:
    void addText(std::string const& text, unsigned lengthOctets);
    void addNumber(std::uint64_t number, unsigned octets);

    std::string text_;
    std::size_t takenOctets_ = 0;
    std::uint64_t checksum_; ///< of these
    bool truncated_ = false;
};

/// Throws Nex::ParseException for anything that StateText has not made.
std::vector<InterfaceState> stateParse(std::string_view text);

/// The same from a regular file; nothing where there is none. Throws std::runtime_error, too.
std::vector<InterfaceState> stateRead(std::string const& file);

} // namespace Agent
