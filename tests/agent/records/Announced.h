// What the library gives to the host entities, as lines of text.
#pragma once

#include "IgmpHostProxy/PlatformState.h"

#include <algorithm>
#include <string>
#include <vector>

namespace Agent {

/// "up0 v3 239.1.1.1 include 10.0.0.1 10.0.0.2" for each group on each interface, sorted.
inline std::vector<std::string> announced(IgmpHostProxy::PlatformState const& state) {
    std::vector<std::string> lines;
    for (auto const& [name, host] : state.hostDir->igmpHost())
        for (auto const& [group, record] : host->v3group()) {
            bool const include = record->filterMode() == Lox::IgmpV3GroupRecordType::modeIsInclude;
            std::vector<std::string> sources;
            for (auto const& item : record->source()->sourceIp())
                if (item.value != 0) sources.push_back(item.key.stringValue());
            std::sort(sources.begin(), sources.end());
            lines.push_back(name + " v" + std::to_string(unsigned(host->igmpVersion())) + " " +
                            group.stringValue() + (include ? " include" : " exclude"));
            for (std::string const& source : sources) lines.back() += " " + source;
        }
    std::sort(lines.begin(), lines.end());
    return lines;
}

} // namespace Agent
