// The agent's figures for monitoring, in the OpenMetrics text form. One family after the other, in
// each one interface after the other, so that many of them are told in pieces.
#pragma once

#include "agent/answers/Groups.h"
#include "agent/answers/View.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Agent {

class MetricsText {
  public:
    /// `view` outlives this.
    explicit MetricsText(AgentView const& view) : view_(view) {}
    /// Adds some lines, or none. False at the end.
    bool next(std::string& text);
    using Labels = std::vector<std::pair<char const*, std::string>>;

  private:
    void doBeginFamily(std::string& text) const;
    bool doNextInterface(std::string& text);
    void doCountGroups(std::string& text);

    AgentView const& view_;
    std::size_t family_ = 0;
    bool begun_ = false;                   ///< the family
    std::optional<std::string> interface_; ///< the last one told of
    Labels labels_;                        ///< of its samples
    std::optional<GroupPlace> place_;      ///< while its groups are counted
    std::array<std::uint64_t, originNames.size()> counts_{};
};

/// The text as an array of pieces.
std::unique_ptr<JsonElements> metricsAnswer(AgentView const& view);

} // namespace Agent
