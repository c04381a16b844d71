// What the agent knows and counts, as JSON: a record of the state store with all its attributes,
// from the same list that declares the record, and likewise the host engine's counters.
#pragma once

#include "agent/HostEngine.h"

#include "Nex/Record.h"

#include <nlohmann/json.hpp>
#include <string>

namespace Agent {

template <class Record>
nlohmann::json toJson(Record const& record);

/// Shows each kind of attribute; numbers and booleans stay what they are, all else is text.
class JsonVisitor {
  public:
    template <class T>
    void attr(char const* name, T const& value) {
        json_[name] = valueOf(value);
    }
    template <class Walk>
    void set(char const* name, Walk&& walk) {
        json_[name] = nlohmann::json::array();
        for (auto const& key : Nex::sortedKeys(std::forward<Walk>(walk)))
            json_[name].push_back(textOf(key));
    }
    template <class Walk>
    void map(char const* name, Walk&& walk) {
        json_[name] = nlohmann::json::object();
        for (auto const& item : walk) json_[name][textOf(item.key)] = valueOf(item.value);
    }
    template <class Walk>
    void records(char const* name, Walk&& walk) {
        json_[name] = nlohmann::json::object();
        for (auto const& item : walk) json_[name][textOf(item.key)] = toJson(*item.value);
    }
    nlohmann::json take() { return std::move(json_); }

  private:
    template <class T>
    static std::string textOf(T const& value) {
        return Nex::textOf(value);
    }
    template <class T>
    static nlohmann::json valueOf(T const& value) {
        if constexpr (std::is_arithmetic_v<T>) {
            return value;
        } else if constexpr (std::is_enum_v<T>) {
            return unsigned(value);
        } else {
            return textOf(value);
        }
    }

    nlohmann::json json_ = nlohmann::json::object();
};

template <class Record>
nlohmann::json toJson(Record const& record) {
    JsonVisitor visitor;
    record.nexVisit(visitor);
    return visitor.take();
}

/// Packets received and not used are in "receivedDropped", by the reason.
nlohmann::json toJson(HostCounters const& counters);

/// Writes a text to a file, which holds the old or the new text but never a part. Throws
/// std::system_error.
void fileReplace(std::string const& path, std::string const& text);

} // namespace Agent
