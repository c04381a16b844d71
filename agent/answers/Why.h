// Why a group is announced on an interface, or why not: every wish for it with its place, and what
// keeps others out.
#pragma once

#include "Lox/IpAddr.h"
#include "agent/answers/View.h"

#include <memory>
#include <string>

namespace Agent {

/// "wishes" holds one entry for each source and origin: "source" is an address or "any", "kind" one
/// of "configuration", "list" and "route", and "counts" tells whether the source is announced for
/// it. "obstacles" tells in words what keeps the group, or other wishes for it, out. `file` is the
/// configuration's. `view` outlives the answer.
std::unique_ptr<JsonPart> whyAnswer(AgentView const& view, std::string interface, Lox::IpAddr group,
                                    std::string file);

} // namespace Agent
