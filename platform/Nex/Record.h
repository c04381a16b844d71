// Records: one line per attribute.
//
// A record's list names each attribute once, by kind:
//
//     ATTR(type, name, Name)         name(), nameIs(value); told by onName()
//     SET(key, name, Name)           name() walks, nameHas/Is/Del(key), nameDelAll(); onName(key)
//     MAP(key, value, name, Name)    name() walks, name(key) or a default value, nameIs(key,
//     value),
//                                    nameHas/Del(key), nameDelAll(); onName(key)
//     RECORDS(key, type, name, Name) name() walks, name(key) or null, nameIs(key) creates or
//                                    fetches, nameHas/Del(key), nameDelAll(); onName(key)
//
// and NEX_RECORD expands the list into storage, accessors, the notification interfaces
// `NotifieeConst` and `Notifiee`, and `nexVisit`, which shows every attribute to a visitor with a
// function of each kind's name; the walk over records is made by the visitor, who may keep it.
// `NotifieeOfAll<Base>` is for those who follow a record as a whole: a reactor whose callbacks all
// call `Base::hear`, with the attribute's value, the record of the key or null, or nullptr where
// a set or a map has changed. Undefine the list where the class ends: it is nobody else's name.
// Every collection also has nameCount() and, for reactors that bring themselves in step with the
// whole, onName##nexImmediate(), which runs as the reactor is pointed at another record.
//
// A lookup returns a plain pointer, good until the entry is deleted: hold a `Ptr` across calls
// that may do so. `nameIs` of RECORDS returns a counted pointer for that reason. A walk holds its
// record. Attributes and values of maps are returned as copies. Lookups and counts take constant
// time; walks go in the order of insertion, or of the keys where those are sorted (`NexSorted`).
//
// An attribute starts out as its type's default value. What is unchanged, `==` says: a pointer to
// the same record is, whatever has changed in that record, and a number that is none never is. A
// map's `name(key)` does not tell a missing key from one whose value is the default: `nameHas`
// does.
//
// What all generated mutators promise:
//
//   - One that changes nothing tells nobody. One that does stores first, then tells everybody, then
//     returns. By then a callback may have changed anything: the entry that was made may be gone.
//   - An exception of a callback reaches the caller, and the value stays changed. Where memory is
//     refused, nothing is changed and nobody told.
//   - Keys and values are taken by value, so they may come from the entry that goes.
//   - A callback gets the key alone and looks the rest up: what it finds may be newer than the
//     change that it is told of.
//   - `nameDelAll` tells of each key as it goes, while later ones are still there. What is added
//     meanwhile may stay.
//   - A record of RECORDS is told of while it is empty: `nameIs` tells, then returns it, and what
//     the caller writes into it afterwards is told by the record itself. If a callback throws, the
//     record stays, and the same call fetches it.
//   - A record that is deleted tells its own watchers nothing and keeps what it contains: the
//     collection alone tells, and finds null under the key. Whoever watches a record watches its
//     collection, too.
//   - The record that an attribute held before is let go, then everybody told: who still needs it
//     has kept it.
//
// RECORDS makes its record the parent of each entry, until the entry is deleted or the record goes;
// who holds the entry may go on using it as a root of its own. A record in an ATTR is held, not
// adopted: whoever makes it sets its parent.
//
// Keys and values are copied and compared by `==`, and moving one throws nothing. Values have a
// default; keys have a hash (`hashNumber`), and those of records an `operator<<`, by which the
// record gets its name.
#pragma once

#include "Nex/Entity.h"
#include "Nex/SortedMap.h"

#include <string_view>
#include <type_traits>
#include <utility>

namespace Nex {

/// Most sets and maps of small keys hold few of them: those stand inside the record, four keys of a
/// set or pairs of a map, and nothing is allocated up to there. Ten thousand groups with a
/// source each are ten thousand records and no table.
template <class Key>
inline constexpr bool isSmall = std::is_trivially_copyable_v<Key> && sizeof(Key) <= 4;
template <class Key>
using SetOf = std::conditional_t<isSmall<Key>, SmallSet<Key>, Set<Key>>;
template <class Key, class Value>
struct MapKind {
    using Type = Map<Key, Value>;
};
template <class Key, class Value>
requires(isSmall<Key>&& isSmall<Value>) struct MapKind<Key, Value> {
    using Type = SmallMap<Key, Value, 4>;
};
/// Whether maps of this key are walked in the order of their keys; a key type says so itself.
template <class Key>
inline constexpr bool isSorted = requires {
    typename Key::NexSorted;
};
template <class Key, class Value>
requires isSorted<Key>
struct MapKind<Key, Value> {
    using Type = SortedMap<Key, Value>;
};
template <class Key, class Value>
using MapOf = typename MapKind<Key, Value>::Type;

/// The records of a collection, held. Those that outlive it are roots of their own.
template <class Key, class Record>
class RecordMap : public Map<Key, Ptr<Record>> {
  public:
    RecordMap() = default;
    ~RecordMap() {
        for (auto const& item : this->walk()) item.value->nexParentIs(nullptr);
    }
};

/// A walk `W` over a collection of a record, which stays as long as the walk. The record is counted
/// up and down once for each walk, not for each entry.
template <class W>
class HeldWalk : Ptr<Entity const>, public W {
  public:
    template <class Collection>
    HeldWalk(Entity const* record, Collection const& collection)
        : Ptr<Entity const>(record), W(collection) {}
};

/// The mutators behind the generated ones. `Interface` and `callback` name who is told. A callback
/// may drop the record, which is held as long as they tell and no longer: a mutator that goes on
/// after that holds it itself.
class RecordBase : public Entity {
  protected:
    /// A walk `W` over one of this record's collections.
    template <class W, class Collection>
    HeldWalk<W> nexWalk(Collection const& collection) const {
        return {this, collection};
    }

    /// A record that the attribute held before, and no longer has a place here, loses its parent.
    template <class Interface, auto callback, class T>
    void nexAttributeIs(T& attribute, T value) {
        if (attribute == value) return;
        std::swap(attribute, value);
        if constexpr (requires { value->nexParentIs(nullptr); }) {
            if (value && value->nexParent() == this && nexPlaceOf(*value).empty())
                value->nexParentIs(nullptr);
            value = nullptr;
        }
        nexNotify<Interface, callback>();
    }

    /// Of SET and MAP. Storing the value that is there already changes nothing; storing a default
    /// value under a new key does. Throws std::bad_alloc, and what the callbacks throw.
    template <class Interface, auto callback, class Collection, class Key, class Value>
    void nexEntryIs(Collection& collection, Key const& key, Value value) {
        auto const [slot, fresh] = collection.findOrInsert(key);
        if (!fresh && *slot == value) return;
        *slot = std::move(value);
        nexNotify<Interface, callback>(key);
    }

    /// Of RECORDS. Fetching tells nobody. Throws std::bad_alloc, and what the callbacks throw.
    template <class Interface, auto callback, class Record, class Key>
    Ptr<Record> nexRecordIs(Map<Key, Ptr<Record>>& records, Key const& key) {
        auto const [slot, fresh] = records.findOrInsert(key);
        if (!fresh) return *slot;
        Ptr<Record> record;
        try {
            record = newObject<Record>(key);
        } catch (...) { // no entry without its record
            records.take(key);
            throw;
        }
        record->nexParentIs(this);
        *slot = record;
        nexNotify<Interface, callback>(key);
        return record;
    }

    /// Of all collections. The entry is held until everybody has been told. Deleting what is not
    /// there tells nobody. Needs no memory.
    template <class Interface, auto callback, class Collection, class Key>
    void nexEntryDel(Collection& collection, Key const& key) {
        if (!collection.has(key)) return;
        [[maybe_unused]] auto const held = collection.take(key);
        if constexpr (requires { held->nexParentIs(nullptr); })
            if (held && held->nexParent() == this) held->nexParentIs(nullptr);
        nexNotify<Interface, callback>(key);
    }

    /// Goes by the entries that are there as it begins; a callback may delete some of them first.
    /// Throws what a callback throws, with the rest of the entries left.
    template <class Interface, auto callback, class Collection>
    void nexEntriesDelAll(Collection& collection) {
        if (collection.empty()) return;
        Ptr<RecordBase> const hold(this); // with the collection that is walked
        for (auto const& yielded : collection.walk())
            nexEntryDel<Interface, callback>(collection, keyOf(yielded));
    }

    /// A copy of the value; a default value where the key is not.
    template <class Key, class Value>
    static Value nexLookup(auto const& map, Key const& key) {
        auto const* const found = map.find(key);
        return found ? *found : Value();
    }
    /// Null where the key is not.
    template <class Key, class Record>
    static Record* nexFind(Map<Key, Ptr<Record>> const& records, Key const& key) {
        auto const* const found = records.find(key);
        return found ? found->get() : nullptr;
    }
};

/// Whether `child` is what a record holds as an attribute, or under its own key in a collection.
/// One lookup, no walk.
template <class T>
bool isHeld(T const&, Entity const&) {
    return false;
}
template <class T>
requires std::is_base_of_v<Entity, T>
bool isHeld(Ptr<T> const& attribute, Entity const& child) { return attribute.get() == &child; }
template <class Key, class Record>
bool isHeld(RecordMap<Key, Record> const& records, Entity const& child) {
    auto const* const record = dynamic_cast<Record const*>(&child);
    auto const* const found = record ? records.find(record->nexKey()) : nullptr;
    return found && found->get() == record;
}

/// Whether two spellings of an attribute's name differ in the case of the first letter only.
constexpr bool sameName(std::string_view lower, std::string_view upper) {
    return lower.size() == upper.size() && lower.substr(1) == upper.substr(1) &&
           (lower[0] == upper[0] || lower[0] - 'a' == upper[0] - 'A');
}

} // namespace Nex

/// In the class `TYPE`, which derives from `RecordBase` and stands on its own: all that `LIST`
/// says, and a key of type `KEY` that is fixed at construction and read by `KEYNAME()`.
/// `TYPE##Is(key)` is the factory. The class goes on as private.
///
/// `onNotifier` of the notification interfaces calls every `...nexImmediate`, in the order of the
/// list, also when the reactor was pointed at none; whoever overrides it takes their place.
///
/// `nexVisit` goes through the list in its order and calls `attr(name, value)`, `set(name, walk)`,
/// `map(name, walk)` or `records(name, walks)`, where `walks()` makes a walk over const records.
/// What the visitor keeps of these reaches into this record, which it then holds.
#define NEX_RECORD(TYPE, KEY, KEYNAME, LIST)                                                       \
  public:                                                                                          \
    explicit TYPE(KEY KEYNAME = KEY()) : KEYNAME##_(std::move(KEYNAME)) {}                         \
    static ::Nex::Ptr<TYPE> TYPE##Is(KEY KEYNAME = KEY()) {                                        \
        return ::Nex::newObject<TYPE>(std::move(KEYNAME));                                         \
    }                                                                                              \
    KEY KEYNAME() const { return KEYNAME##_; }                                                     \
    KEY const& nexKey() const { return KEYNAME##_; }                                               \
    ::Nex::String nexName() const override { return ::Nex::textOf(KEYNAME##_); }                   \
    ::Nex::String nexPlaceOf([[maybe_unused]] ::Nex::Entity const& child) const override {         \
        LIST(NEX_NOTHING, NEX_NOTHING, NEX_NOTHING, NEX_PLACE_RECORDS)                             \
        LIST(NEX_PLACE_ATTR, NEX_NOTHING, NEX_NOTHING, NEX_NOTHING)                                \
        return {};                                                                                 \
    }                                                                                              \
    class NotifieeConst : public ::Nex::NotifieeOf<TYPE> {                                         \
      public:                                                                                      \
        LIST(NEX_CALLBACK_ATTR, NEX_CALLBACK_KEYED, NEX_CALLBACK_MAP, NEX_CALLBACK_RECORDS)        \
        void onNotifier() override {                                                               \
            LIST(NEX_NOTHING, NEX_IMMEDIATE_SET, NEX_IMMEDIATE, NEX_IMMEDIATE)                     \
        }                                                                                          \
                                                                                                   \
      protected:                                                                                   \
        using ::Nex::NotifieeOf<TYPE>::NotifieeOf;                                                 \
    };                                                                                             \
    using Notifiee = ::Nex::WritingNotifiee<NotifieeConst, TYPE>;                                  \
    template <class Base>                                                                          \
    class NotifieeOfAll : public Base {                                                            \
      public:                                                                                      \
        using Base::Base;                                                                          \
        LIST(NEX_HEAR_ATTR, NEX_HEAR_SET, NEX_HEAR_MAP, NEX_HEAR_RECORDS)                          \
    };                                                                                             \
    LIST(NEX_ACCESS_ATTR, NEX_ACCESS_SET, NEX_ACCESS_MAP, NEX_ACCESS_RECORDS)                      \
    template <class Visitor>                                                                       \
    void nexVisit(Visitor&& visitor) const {                                                       \
        LIST(NEX_VISIT_ATTR, NEX_VISIT_SET, NEX_VISIT_MAP, NEX_VISIT_RECORDS)                      \
    }                                                                                              \
                                                                                                   \
  private:                                                                                         \
    KEY KEYNAME##_;                                                                                \
    LIST(NEX_STORE_ATTR, NEX_STORE_SET, NEX_STORE_MAP, NEX_STORE_RECORDS)

#define NEX_SAME_NAME(NAME, UPPER)                                                                 \
    static_assert(::Nex::sameName(#NAME, #UPPER),                                                  \
                  "list each attribute as (..., someName, SomeName): one name, spelled twice");
#define NEX_CALLBACK_ATTR(TYPE, NAME, UPPER)                                                       \
    NEX_SAME_NAME(NAME, UPPER)                                                                     \
    virtual void on##UPPER() {}
#define NEX_CALLBACK_KEYED(KEY, NAME, UPPER)                                                       \
    NEX_SAME_NAME(NAME, UPPER)                                                                     \
    virtual void on##UPPER(KEY) {}                                                                 \
    virtual void on##UPPER##nexImmediate() {}
#define NEX_CALLBACK_MAP(KEY, VALUE, NAME, UPPER) NEX_CALLBACK_KEYED(KEY, NAME, UPPER)
#define NEX_CALLBACK_RECORDS(KEY, TYPE, NAME, UPPER) NEX_CALLBACK_KEYED(KEY, NAME, UPPER)

#define NEX_HEAR_ATTR(TYPE, NAME, UPPER)                                                           \
    void on##UPPER() override { this->hear(this->notifier()->NAME()); }
#define NEX_HEAR_SET(KEY, NAME, UPPER)                                                             \
    void on##UPPER(KEY) override { this->hear(nullptr); }
#define NEX_HEAR_MAP(KEY, VALUE, NAME, UPPER) NEX_HEAR_SET(KEY, NAME, UPPER)
#define NEX_HEAR_RECORDS(KEY, TYPE, NAME, UPPER)                                                   \
    void on##UPPER(KEY key) override { this->hear(this->notifier()->NAME(std::move(key))); }

#define NEX_NOTHING(...)
#define NEX_PLACE_ATTR(TYPE, NAME, UPPER)                                                          \
    if (::Nex::isHeld(NAME##_, child)) return #NAME;
#define NEX_PLACE_RECORDS(KEY, TYPE, NAME, UPPER)                                                  \
    if (::Nex::isHeld(NAME##_, child)) return #NAME "/" + child.nexName();
#define NEX_IMMEDIATE_SET(KEY, NAME, UPPER) on##UPPER##nexImmediate();
#define NEX_IMMEDIATE(KEY, TYPE, NAME, UPPER) on##UPPER##nexImmediate();

#define NEX_STORE_ATTR(TYPE, NAME, UPPER) TYPE NAME##_{};
#define NEX_STORE_SET(KEY, NAME, UPPER) ::Nex::SetOf<KEY> NAME##_;
#define NEX_STORE_MAP(KEY, VALUE, NAME, UPPER) ::Nex::MapOf<KEY, VALUE> NAME##_;
#define NEX_STORE_RECORDS(KEY, TYPE, NAME, UPPER) ::Nex::RecordMap<KEY, TYPE> NAME##_;

#define NEX_VISIT_ATTR(TYPE, NAME, UPPER) visitor.attr(#NAME, NAME##_);
#define NEX_VISIT_SET(KEY, NAME, UPPER) visitor.set(#NAME, NAME##_.walk());
#define NEX_VISIT_MAP(KEY, VALUE, NAME, UPPER) visitor.map(#NAME, NAME##_.walk());
#define NEX_VISIT_RECORDS(KEY, TYPE, NAME, UPPER)                                                  \
    visitor.records(#NAME, [this] { return NAME##_.template walk<::Nex::Ptr<TYPE const>>(); });

#define NEX_ACCESS_ATTR(TYPE, NAME, UPPER)                                                         \
    TYPE NAME() const { return NAME##_; }                                                          \
    void NAME##Is(TYPE value) {                                                                    \
        nexAttributeIs<NotifieeConst, &NotifieeConst::on##UPPER>(NAME##_, std::move(value));       \
    }

/// What all collections share.
#define NEX_ACCESS_COLLECTION(KEY, NAME, UPPER)                                                    \
    bool NAME##Has(KEY key) const { return NAME##_.has(key); }                                     \
    std::size_t NAME##Count() const { return NAME##_.size(); }                                     \
    void NAME##Del(KEY key) { nexEntryDel<NotifieeConst, NEX_KEYED(KEY, UPPER)>(NAME##_, key); }   \
    void NAME##DelAll() { nexEntriesDelAll<NotifieeConst, NEX_KEYED(KEY, UPPER)>(NAME##_); }
#define NEX_KEYED(KEY, UPPER) static_cast<void (NotifieeConst::*)(KEY)>(&NotifieeConst::on##UPPER)

#define NEX_ACCESS_SET(KEY, NAME, UPPER)                                                           \
    auto NAME() const { return nexWalk<decltype(NAME##_.walk())>(NAME##_); }                       \
    void NAME##Is(KEY key) {                                                                       \
        nexEntryIs<NotifieeConst, NEX_KEYED(KEY, UPPER)>(NAME##_, key, ::Nex::Nothing());          \
    }                                                                                              \
    NEX_ACCESS_COLLECTION(KEY, NAME, UPPER)

#define NEX_ACCESS_MAP(KEY, VALUE, NAME, UPPER)                                                    \
    auto NAME() const { return nexWalk<decltype(NAME##_.walk())>(NAME##_); }                       \
    VALUE NAME(KEY key) const { return nexLookup<KEY, VALUE>(NAME##_, key); }                      \
    void NAME##Is(KEY key, VALUE value) {                                                          \
        nexEntryIs<NotifieeConst, NEX_KEYED(KEY, UPPER)>(NAME##_, key, std::move(value));          \
    }                                                                                              \
    NEX_ACCESS_COLLECTION(KEY, NAME, UPPER)

#define NEX_ACCESS_RECORDS(KEY, TYPE, NAME, UPPER)                                                 \
    auto NAME() const {                                                                            \
        return nexWalk<decltype(NAME##_.template walk<::Nex::Ptr<TYPE const>>())>(NAME##_);        \
    }                                                                                              \
    auto NAME() { return nexWalk<decltype(NAME##_.walk())>(NAME##_); }                             \
    TYPE const* NAME(KEY key) const { return nexFind(NAME##_, key); }                              \
    TYPE* NAME(KEY key) { return nexFind(NAME##_, key); }                                          \
    ::Nex::Ptr<TYPE> NAME##Is(KEY key) {                                                           \
        return nexRecordIs<NotifieeConst, NEX_KEYED(KEY, UPPER), TYPE>(NAME##_, key);              \
    }                                                                                              \
    NEX_ACCESS_COLLECTION(KEY, NAME, UPPER)
