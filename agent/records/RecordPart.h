// Records as JSON, from the lists that declare them.
#pragma once

#include "Nex/Record.h"
#include "agent/loop/Json.h"
#include "agent/records/JsonStream.h"

#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace Agent {

/// A record with all its attributes, from the same list that declares it. Numbers and booleans stay
/// what they are, all else is text.
template <class Record>
class RecordPart : public JsonPart {
  public:
    explicit RecordPart(Nex::Ptr<Record const> record) : record_(std::move(record)) {}
    bool next(JsonStream& stream) override;

  private:
    class Visitor;

    Nex::Ptr<Record const> record_;
    std::size_t shown_ = 0; ///< attributes
};

/// The records of a collection, which whoever opens this part holds.
template <class Walk>
class RecordsPart : public JsonPart {
  public:
    template <class MakeWalk>
    explicit RecordsPart(MakeWalk const& makeWalk) : walk_(makeWalk()) {}
    bool next(JsonStream& stream) override;

  private:
    Walk walk_;
    std::optional<typename Walk::Iterator> at_;
};

/// Shows what has not been shown yet, up to the next collection of records.
template <class Record>
class RecordPart<Record>::Visitor {
  public:
    Visitor(JsonStream& stream, std::size_t& shown) : stream_(stream), shown_(shown) {}
    bool any() const { return any_; }

    template <class T>
    void attr(char const* name, T const& value) {
        if (isTurn()) stream_.add(name, valueOf(value));
    }
    template <class Walk>
    void set(char const* name, Walk&& walk) {
        if (!isTurn()) return;
        auto keys = nlohmann::json::array();
        for (auto const& key : Nex::sortedKeys(std::forward<Walk>(walk)))
            keys.push_back(Nex::textOf(key));
        stream_.add(name, keys);
    }
    template <class Walk>
    void map(char const* name, Walk&& walk) {
        if (!isTurn()) return;
        auto items = nlohmann::json::object();
        for (auto const& item : walk) items[Nex::textOf(item.key)] = valueOf(item.value);
        stream_.add(name, items);
    }
    template <class MakeWalk>
    void records(char const* name, MakeWalk const& makeWalk) {
        if (!isTurn()) return;
        stream_.open(name, std::make_unique<RecordsPart<decltype(makeWalk())>>(makeWalk));
        stopped_ = true;
    }

  private:
    bool isTurn() {
        if (stopped_ || at_++ < shown_) return false;
        ++shown_;
        return any_ = true;
    }
    template <class T>
    static nlohmann::json valueOf(T const& value) {
        if constexpr (std::is_arithmetic_v<T>)
            return value;
        else if constexpr (std::is_enum_v<T>)
            return unsigned(value);
        else
            return Nex::textOf(value);
    }

    JsonStream& stream_;
    std::size_t& shown_;
    std::size_t at_ = 0;
    bool any_ = false;
    bool stopped_ = false;
};

template <class Record>
bool RecordPart<Record>::next(JsonStream& stream) {
    Visitor visitor(stream, shown_);
    record_->nexVisit(visitor);
    return visitor.any();
}

template <class Walk>
bool RecordsPart<Walk>::next(JsonStream& stream) {
    if (at_)
        ++*at_;
    else
        at_ = walk_.begin();
    if (*at_ == walk_.end()) return false;
    auto const& [key, record] = **at_;
    using Record = std::remove_reference_t<decltype(*record)>;
    stream.open(Nex::textOf(key), std::make_unique<RecordPart<Record>>(record));
    return true;
}

} // namespace Agent
