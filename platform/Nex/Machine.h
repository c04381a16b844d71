// What a machine is made of: watched inputs, plain inputs, fields, per-key reactors, and keyed
// collections of further machines. One line each; the behaviour lies in the templates below.
//
// A machine defines `nexTypeName` (its full class name, for error texts) before using the macros.
//
// A machine owns its reactors and reads what they watch; the reactors know the machine by a plain
// pointer. Its destructor begins with `nexDoZombieReactors(true)`: members end after that, and what
// they bring about reaches no handler any more. A reactor on the stack keeps its machine, so a
// handler may let go of the last pointer to its own machine and still return into it.
//
// In the constructor, reactors are made by `Nex::watch` and look at nothing by themselves: the
// constructor calls the handlers in the order that it wants, once all inputs are there. What it
// changes in watched records is heard at once, by the reactors that stand by then.
#pragma once

#include "Nex/Entity.h"
#include "Nex/Error.h"

#include <optional>
#include <string>
#include <tuple>
#include <utility>

namespace Nex {

/// The base of a machine's reactors: the notification interface, and the machine by its own type.
/// `machine` is not null in a reactor that calls it, and not held.
template <class Interface, class Machine>
class Reactor : public Interface {
  public:
    template <class Watched>
    Reactor(Ptr<Watched> watched, Machine* machine) : Interface(std::move(watched), machine) {}
    Machine* machine() const { return static_cast<Machine*>(NotifieeBase::machine()); }
};

/// The target of a reactor, const or not, as its notification interface has it.
template <class R>
using WatchedBy = std::remove_pointer_t<decltype(std::declval<R const&>().notifier())>;

/// The objects of one owner whose constructors are on the stack, and what was asked for each of
/// them meanwhile. A constructor may run anything; whatever that does, the place of the object ends
/// up as the last request said. Makings nest and end in the reverse order, as their stack frames
/// do; a lookup takes a step for each of them. Needs no memory.
template <class Key, class Request>
class Makings {
  public:
    /// Stands on the stack of whoever makes the object of a key.
    class Making {
      public:
        Making(Makings& all, Key const& key)
            : all_(all), outer_(std::exchange(all.innermost_, this)), key_(key) {}
        Making(Making const&) = delete;
        Making& operator=(Making const&) = delete;
        ~Making() { all_.innermost_ = outer_; }

        bool wanted = true;          ///< not deleted meanwhile
        std::optional<Request> last; ///< what was asked for last

      private:
        friend class Makings;
        Makings& all_;
        Making* const outer_;
        Key const key_;
    };

    /// The object of `key` is being made and wanted: what is asked of it is remembered there. Null
    /// where it is not, also where one was that has been deleted since: whoever asks then makes
    /// another.
    Making* find(Key const& key) const {
        Making* at = innermost_;
        while (at && !(at->wanted && at->key_ == key)) at = at->outer_;
        return at;
    }
    /// What is being made for a key that `stays` rejects is wanted no more.
    template <class Stays>
    void delUnless(Stays stays) {
        for (Making* at = innermost_; at; at = at->outer_)
            at->wanted = at->wanted && stays(at->key_);
    }
    void del(Key const& key) {
        if (Making* const making = find(key)) making->wanted = false;
    }

  private:
    Making* innermost_ = nullptr;
};

/// A reactor in the hand of its machine: dropping it silences it, then lets go. Whoever else holds
/// the reactor keeps an object that hears nothing. Whoever calls it keeps it alive until the call
/// returns, as the dispatcher does with the machine that it stands in.
template <class R>
class Owned {
    using Request = Ptr<WatchedBy<R>>;

  public:
    Owned() = default;
    Owned(Owned const&) = delete;
    Owned& operator=(Owned const&) = delete;
    ~Owned() { del(); }

    /// Makes the reactor, in place of one that was there, and switches its notifications on. What
    /// is asked meanwhile, from within its constructor, is done once it stands. Throws what the
    /// constructor throws; there is then no reactor.
    template <class... Args>
    void make(Args&&... args) {
        del();
        typename Makings<Nothing, Request>::Making making(makings_, {});
        auto const fresh = newObject<R>(std::forward<Args>(args)...);
        fresh->hasNotificationActiveIs(true);
        if (!making.wanted) return fresh->nexRetire();
        reactor_ = fresh;
        if (making.last) fresh->notifierIs(*making.last);
    }
    /// Points the reactor at `watched`, or makes it for a `machine` that has none yet. A null
    /// object makes no reactor, and leaves one that is there in place, watching nothing. One that
    /// is pointed elsewhere has looked at what it finds there when this returns (`onNotifier`); one
    /// that is made has done what its constructor does, no more. Throws what these throw.
    template <class Machine>
    void watch(Request watched, Machine* machine) {
        if (reactor_)
            Ptr<R>(reactor_)->notifierIs(std::move(watched));
        else if (auto* const making = makings_.find({}))
            making->last = std::move(watched);
        else if (watched)
            make(std::move(watched), machine);
    }
    /// Also from within the reactor's own callback, and its constructor. A callback that is on the
    /// stack runs to its end, with `notifier()` null.
    void del() {
        makings_.del({});
        if (Ptr<R> const reactor = std::exchange(reactor_, nullptr)) reactor->nexRetire();
    }
    /// Null where there is none, and while it is being made.
    R* get() const { return reactor_.get(); }
    R* operator->() const { return get(); }
    explicit operator bool() const { return get() != nullptr; }

  private:
    Ptr<R> reactor_;
    Makings<Nothing, Request> makings_;
};

/// What a reactor watches, or null without a reactor.
template <class R>
auto watchedBy(Owned<R> const& owned) {
    return owned ? owned->notifier() : nullptr;
}

/// As `Owned::watch`.
template <class R, class Watched, class Machine>
void watch(Owned<R>& owned, Ptr<Watched> watched, Machine* machine) {
    owned.watch(std::move(watched), machine);
}

/// As `watch`, for a machine that is up: a reactor that is made only now looks at all there is, as
/// one that is pointed elsewhere does. Where its constructor has looked already, it looks twice.
template <class R, class Watched, class Machine>
void watchAnew(Owned<R>& owned, Ptr<Watched> watched, Machine* machine) {
    bool const wasThere = bool(owned);
    watch(owned, std::move(watched), machine);
    Ptr<R> const reactor = owned.get();
    if (!wasThere && reactor) reactor->nexDeliver([&] { reactor->onNotifier(); });
}

/// The per-key reactors of a machine. A reactor may start up in its constructor; whatever its
/// start-up does to this collection, the key ends up as the last call said. Calls take constant
/// time but for what the reactors do. A reactor that hears of its key's end in its own callback may
/// delete itself by it.
template <class Key, class R>
class ReactorMap {
  public:
    ReactorMap() = default;
    ReactorMap(ReactorMap const&) = delete;
    ReactorMap& operator=(ReactorMap const&) = delete;
    ~ReactorMap() { delAll(); }

    /// The reactor of `key`; null when there is none or while it is being made. Lent: hold a `Ptr`
    /// across calls that may delete it.
    R* get(Key const& key) const {
        auto const* const found = reactors_.find(key);
        return found ? found->get() : nullptr;
    }
    std::size_t size() const { return reactors_.size(); }
    /// Yields keys and counted pointers, in the order in which the reactors came.
    auto walk() const { return reactors_.walk(); }

    /// Makes the reactor of `key` on `watched`, or points the one that is there at it. Null while
    /// that is being made further up the stack: it is pointed at `watched` once it stands. What the
    /// reactor's constructor throws reaches the caller, and the key is as it was.
    ///
    /// The reactor returned may be deleted by then, and retired: `get` knows whether it is still
    /// the key's. `watched` may be null for one that is there, which then watches nothing and
    /// stays.
    template <class Watched, class Machine>
    Ptr<R> is(Key const& key, Ptr<Watched> watched, Machine* machine) {
        if (Ptr<R> const known = get(key)) {
            known->notifierIs(std::move(watched));
            return known;
        }
        if (auto* const making = makings_.find(key)) {
            making->last = std::move(watched);
            return nullptr;
        }
        typename decltype(makings_)::Making making(makings_, key);
        auto const fresh = newObject<R>(std::move(watched), machine);
        fresh->hasNotificationActiveIs(true);
        if (making.wanted) {
            try {
                *reactors_.findOrInsert(key).first = fresh;
            } catch (...) { // nobody would retire it
                fresh->nexRetire();
                throw;
            }
            if (making.last) fresh->notifierIs(*making.last);
        } else {
            fresh->nexRetire();
        }
        return fresh;
    }
    /// Silences the reactor, then lets go of it. One that is being made goes once it stands. A key
    /// without one is no error. Out of the map before it is retired: what that brings about finds
    /// the key free.
    void del(Key const& key) {
        makings_.del(key);
        if (Ptr<R> const reactor = reactors_.take(key)) reactor->nexRetire();
    }
    void delAll() {
        delUnless([](Key const&) { return false; });
    }
    /// Deletes the reactors whose key `stays` rejects. `stays` is asked as each one's turn comes,
    /// with the consequences of the deletions before; what comes meanwhile is not asked about.
    /// Throws what retiring one throws, with the rest left.
    template <class Stays>
    void delUnless(Stays stays) {
        makings_.delUnless(stays);
        for (auto const& item : reactors_.walk())
            if (!stays(item.key)) del(item.key);
    }

  private:
    Map<Key, Ptr<R>> reactors_;
    Makings<Key, Ptr<WatchedBy<R>>> makings_;
};

/// The error of a null object given to a collection of reactors. The quote at its end belongs to
/// the text that operators know.
inline void refuseNull(bool isNull, char const* typeName, char const* attribute) {
    if (isNull)
        throw RangeException("null _" + String(attribute) + " parameter to mutator for " +
                             typeName + "::" + attribute + " not allowed\"");
}

/// Machines by key. Asking again with the same arguments returns the machine; with another
/// argument it fails. A machine class tells the names of these arguments in the array
/// `nexArgumentNames`, and their present values by `nexArguments()`, a tuple. Compared is what the
/// machine has now, so one that was pointed elsewhere since is found by its new inputs.
///
/// A machine that is deleted while others hold it lives on and hears nothing. Its records are left
/// as they are.
template <class Key, class Machine>
class MachineMap {
  public:
    MachineMap() = default;
    MachineMap(MachineMap const&) = delete;
    MachineMap& operator=(MachineMap const&) = delete;
    ~MachineMap() { delAll(); }

    /// Null where there is none, and while it is being made. Hold a `Ptr` across calls that may
    /// delete it.
    Machine* get(Key const& key) const {
        auto const* const found = machines_.find(key);
        return found ? found->get() : nullptr;
    }
    std::size_t size() const { return machines_.size(); }
    auto walk() const { return machines_.walk(); }

    /// `factory` makes a machine from key and arguments. Null while the machine is being made
    /// further up the stack. Throws NameInUseException where it is there, or being made, from
    /// other arguments, and names the first that differs; and what `factory` throws, with no
    /// machine made. The machine returned may be deleted by then, and silenced: `get` knows.
    template <class Factory, class... Args>
    Ptr<Machine> is(Factory factory, Key const& key, Args const&... args) {
        Arguments const asked(args...);
        if (Ptr<Machine> const known = get(key)) {
            compare(known->nexArguments(), asked, std::index_sequence_for<Args...>());
            return known;
        }
        if (auto const* const making = makings_.find(key)) {
            compare(*making->last, asked, std::index_sequence_for<Args...>());
            return nullptr;
        }
        typename decltype(makings_)::Making making(makings_, key);
        making.last = asked;
        Ptr<Machine> const fresh = factory(key, args...);
        if (making.wanted)
            *machines_.findOrInsert(key).first = fresh;
        else
            fresh->nexDoZombieReactors(true);
        return fresh;
    }
    /// Silences the machine's reactors, then lets go of it, by then out of the map. One that is
    /// being made goes once it stands. A key without one is no error.
    void del(Key const& key) {
        makings_.del(key);
        if (Ptr<Machine> const machine = machines_.take(key)) machine->nexDoZombieReactors(true);
    }
    /// In the order in which they came, those that are being made included.
    void delAll() {
        makings_.delUnless([](Key const&) { return false; });
        for (auto const& item : machines_.walk()) del(item.key);
    }

  private:
    using Arguments = decltype(std::declval<Machine const&>().nexArguments());

    template <std::size_t... at>
    static void compare(Arguments const& present, Arguments const& asked,
                        std::index_sequence<at...>) {
        (compareOne(Machine::nexArgumentNames[at], std::get<at>(present), std::get<at>(asked)),
         ...);
    }
    template <class T>
    static void compareOne(char const* name, T const& present, T const& asked) {
        if (present == asked) return;
        throw NameInUseException(
            "Reinstantiating the pointer interface where constructor parameter attribute _" +
            String(name) + " has a different value of " + textOf(present) + ", " + textOf(asked));
    }

    Map<Key, Ptr<Machine>> machines_;
    Makings<Key, Arguments> makings_; ///< with what each is being made from
};

} // namespace Nex

/// An input that the reactor class `REACTOR` watches: `NAME()` is the watched object or null, lent;
/// `NAME##Is` points the reactor elsewhere, and has it look there before it returns. With null it
/// looks, too, and finds none.
#define NEX_WATCHED(TYPE, NAME, REACTOR)                                                           \
  public:                                                                                          \
    TYPE* NAME() const { return ::Nex::watchedBy(NAME##_); }                                       \
    void NAME##Is(::Nex::Ptr<TYPE> watched) {                                                      \
        ::Nex::watchAnew(NAME##_, std::move(watched), this);                                       \
    }                                                                                              \
                                                                                                   \
  private:                                                                                         \
    ::Nex::Owned<REACTOR> NAME##_;

/// An input that is only used: held, never watched, and fixed once the constructor has set
/// `NAME##_`. `NAME()` may be null. Lent, good as long as the machine.
#define NEX_INPUT(TYPE, NAME)                                                                      \
  public:                                                                                          \
    TYPE* NAME() const { return NAME##_.get(); }                                                   \
                                                                                                   \
  private:                                                                                         \
    ::Nex::Ptr<TYPE> NAME##_;

/// A value of the machine's own, which nobody is told of: who sets it sees to what follows.
#define NEX_FIELD(TYPE, NAME, VALUE)                                                               \
  public:                                                                                          \
    TYPE NAME() const { return NAME##_; }                                                          \
    void NAME##Is(TYPE value) { NAME##_ = std::move(value); }                                      \
                                                                                                   \
  private:                                                                                         \
    TYPE NAME##_ = VALUE;

/// A set of the machine's own, which nobody is told of. `NAME()` walks it and tolerates changes.
#define NEX_FIELD_SET(KEY, NAME)                                                                   \
  public:                                                                                          \
    auto NAME() const { return NAME##_.walk(); }                                                   \
    bool NAME##Has(KEY key) const { return NAME##_.has(key); }                                     \
    void NAME##Is(KEY key) { NAME##_.findOrInsert(key); }                                          \
    void NAME##Del(KEY key) { NAME##_.take(key); }                                                 \
    void NAME##DelAll() {                                                                          \
        for (auto const& key : NAME##_.walk()) NAME##_.take(key);                                  \
    }                                                                                              \
                                                                                                   \
  private:                                                                                         \
    ::Nex::Set<KEY> NAME##_;

/// Reactors of class `REACTOR`, one for each `TYPE` whose `KEYNAME()` is the key. `NAME##Is` makes
/// one or points it at that object, as `ReactorMap::is`; null is refused by Nex::RangeException.
/// The machine calls `NAME##Del` as the object goes: nobody else does.
#define NEX_REACTORS(KEY, REACTOR, NAME, TYPE, KEYNAME)                                            \
  public:                                                                                          \
    REACTOR* NAME(KEY key) const { return NAME##_.get(key); }                                      \
    auto NAME() const { return NAME##_.walk(); }                                                   \
    ::Nex::Ptr<REACTOR> NAME##Is(::Nex::Ptr<TYPE> watched) {                                       \
        ::Nex::refuseNull(!watched, nexTypeName, #NAME);                                           \
        KEY const key = watched->KEYNAME();                                                        \
        return NAME##_.is(key, std::move(watched), this);                                          \
    }                                                                                              \
    void NAME##Del(KEY key) { NAME##_.del(key); }                                                  \
    void NAME##DelAll() { NAME##_.delAll(); }                                                      \
                                                                                                   \
  private:                                                                                         \
    ::Nex::ReactorMap<KEY, REACTOR> NAME##_;
