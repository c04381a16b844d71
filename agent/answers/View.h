// What the answers to an operator's questions are made of: everything that the agent knows, to be
// read.
#pragma once

#include "IgmpHostProxy/PlatformState.h"
#include "agent/ports/PortRegistry.h"
#include "agent/ports/VrfRegistry.h"
#include "agent/records/ConfigurationWriter.h"
#include "agent/records/JsonStream.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace Agent {

class Reloader;

struct AgentView {
    IgmpHostProxy::PlatformState const& state;
    ConfigurationWriter const& writer;
    VrfRegistry const& vrfs;
    PortRegistry const& ports;
    Nex::Ptr<IgmpHostProxy::IgmpHostProxySm> const& root;
    Obstacles const& obstacles;
    EventLoop const& loop;
    Reloader const& reloader;
    double startTime; ///< by the loop's clock

    /// The part of the configuration in force; null for an interface that is not in it.
    InterfaceConfiguration const* configured(std::string const& interface) const {
        auto const& interfaces = writer.configuration().interfaces;
        auto const found = interfaces.find(interface);
        return found == interfaces.end() ? nullptr : &found->second;
    }
    /// Its first interface, or the next one behind a name; null at the end. For walks in pieces: at
    /// the next one, another configuration may be in force.
    auto const* nextInterface(std::optional<std::string> const& last) const {
        auto const& interfaces = writer.configuration().interfaces;
        auto const at = last ? interfaces.upper_bound(*last) : interfaces.begin();
        return at == interfaces.end() ? nullptr : &*at;
    }
};

/// The elements of an array, a few at a time.
using JsonElements = JsonPart;

/// An object whose only member is an array.
class ListPart : public JsonPart {
  public:
    ListPart(char const* name, std::unique_ptr<JsonElements> elements)
        : name_(name), elements_(std::move(elements)) {}
    bool next(JsonStream& stream) override {
        if (!elements_) return false;
        stream.openArray(name_, std::move(elements_));
        return true;
    }

  private:
    char const* name_;
    std::unique_ptr<JsonElements> elements_;
};

} // namespace Agent
