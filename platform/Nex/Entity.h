// Entities and the notification of those who watch them.
//
// A mutator stores the new value, then calls the notifiees in the order in which they registered,
// and returns after all of them; a mutator that changes nothing calls nobody. During a callback
// notifiees may come and go, the entity may be changed again or dropped, and the callback may
// throw: a newcomer is not told of the change under way, one that left or became a zombie is not
// told any more, and an exception reaches the caller of the mutator with the value changed.
//
// Nothing is queued. A change made inside a callback is told to everybody before those behind that
// callback hear of the first: they are told twice, the inner change first, and find the newest
// state both times. How deep this goes is nobody's business but the callbacks': two that answer
// each other for ever end with the stack.
//
// One thread makes all changes and runs all callbacks. Nothing here is locked.
#pragma once

#include "Lumen/Ring.h"
#include "Nex/Map.h"
#include "Nex/Ptr.h"

#include <optional>
#include <sstream>
#include <string>

namespace Nex {

using String = std::string;
using Name = std::string;

/// The base of all notification interfaces: a reactor seen by the dispatcher. It is born inactive,
/// so a constructor reads what is there and hears nothing of what it brings about, unless it makes
/// itself active; `Owned` and `ReactorMap` do once it stands.
class NotifieeBase : public PtrInterface {
  public:
    /// Callbacks arrive only while this is set. Switching it on delivers nothing.
    bool hasNotificationActive() const { return active_; }
    void hasNotificationActiveIs(bool active) { active_ = active; }
    /// A zombie ignores every callback.
    bool zombie() const { return zombie_; }
    void zombieIs(bool zombie) { zombie_ = zombie; }
    /// The machine that the callbacks belong to, not owned; null for none. It may be a reactor
    /// itself, with a machine of its own. A reactor that may outlive its machine is retired before
    /// that goes: only a zombie asks its machine nothing.
    PtrInterface* machine() const { return machine_; }

    /// Silences the reactor for good: its owner lets go of it, and the machine may go first. Those
    /// that have reactors or timers of their own let go of them, too. A second call does nothing
    /// more. Also from within the reactor's own callback.
    virtual void nexRetire() { zombie_ = true; }

    /// Runs `callback` unless the reactor or its machine is silenced, or the reactor inactive. The
    /// reactor and its machines stay alive until it returns. Throws what `callback` throws.
    template <class F>
    [[gnu::always_inline]] void nexDeliver(F&& callback) {
        // Asked first: a machine that is being destroyed must not be held and let go again.
        if (!active_ || silenced()) return;
        Ptr<NotifieeBase> const holdReactor(this);
        Ptr<PtrInterface> const holdMachine(machine_);
        Ptr<PtrInterface> const holdOuter(machineIsReactor_ ? outer()->machine_ : nullptr);
        callback();
    }

    /// For reactors that start themselves up: whether they have. The dispatcher does not ask.
    bool initialized() const { return initialized_; }

  protected:
    void initializedIs(bool initialized) { initialized_ = initialized; }

    explicit NotifieeBase(PtrInterface* machine) : machine_(machine) {}
    explicit NotifieeBase(NotifieeBase* machine)
        : machineIsReactor_(machine != nullptr), machine_(machine) {}

  private:
    NotifieeBase* outer() const { return static_cast<NotifieeBase*>(machine_); }
    [[gnu::always_inline]] bool silenced() const {
        if (zombie_ || (machine_ && machine_->nexZombieReactors())) return true;
        return machineIsReactor_ && outer()->outerSilenced();
    }
    bool outerSilenced() const;

    bool active_ : 1 = false;
    bool zombie_ : 1 = false;
    bool machineIsReactor_ : 1 = false;
    bool initialized_ : 1 = false;
    PtrInterface* machine_;
};

/// The notifiees of one entity, in the order of registration. One notifiee costs a pointer; each
/// comes and goes in constant time, however many there are. From the second one on they stand in a
/// table of their own, which stays until the entity goes.
class NotifieeList {
    /// From the second notifiee on.
    using Many = Set<NotifieeBase*>;

  public:
    NotifieeList() = default;
    NotifieeList(NotifieeList const&) = delete;
    NotifieeList& operator=(NotifieeList const&) = delete;
    ~NotifieeList() { delete many(); }

    bool empty() const { return head_ == 0; }
    /// Behind all others; one that is there already stays where it is. Throws std::bad_alloc, and
    /// the list is as it was. The first one needs no memory.
    void add(NotifieeBase* notifiee);
    /// Needs no memory. One that is not there is no error.
    void del(NotifieeBase* notifiee);

    /// Calls `tell` with each of those who are registered as it begins and still are as their turn
    /// comes. Calls nest. One that left and came back meanwhile is not called. The list outlives
    /// the call: whoever calls holds the entity.
    template <class F>
    [[gnu::always_inline]] void forEach(F const& tell) const {
        if (Many const* const all = many()) [[unlikely]] {
            Many::Cursor<Nothing> walk(*all);
            while (std::optional<NotifieeBase*> const notifiee = walk.next()) tell(*notifiee);
        } else if (NotifieeBase* const notifiee = one()) {
            tell(notifiee);
        }
    }

  private:
    static constexpr std::uintptr_t tag = 1;

    Many* many() const { return head_ & tag ? reinterpret_cast<Many*>(head_ & ~tag) : nullptr; }
    NotifieeBase* one() const { return reinterpret_cast<NotifieeBase*>(head_); }

    std::uintptr_t head_ = 0; ///< nobody, one notifiee, or a tagged `Many`
};

/// A named record in the tree of the state store.
class Entity : public PtrInterface {
  public:
    /// Unique in its collection.
    virtual String nexName() const = 0;
    /// The names from the root of the tree down, each after that of its collection, joined with
    /// '/'. One that stands in an attribute goes by the attribute's name. Made anew at each call,
    /// in as many steps as the tree is deep.
    String nexFullName() const;
    /// What `child` adds to the full name of the entity that holds it; empty when this does not. To
    /// be overridden by whatever calls itself another entity's parent.
    virtual String nexPlaceOf(Entity const&) const { return {}; }
    /// Null for a root, and for an entity that was removed from its tree. Not owned.
    Entity* nexParent() const { return parent_; }
    /// For whoever holds this entity in the tree, and takes it out before it goes itself: `parent`
    /// is not held. Tells nobody.
    void nexParentIs(Entity* parent) { parent_ = parent; }

    // Registration, by the notifiees themselves. They are not owned, and take themselves out before
    // they go. Adding one throws std::bad_alloc; taking out one that is not there is no error. Both
    // may come in the middle of a notification, and both work on a const entity: who watches is no
    // part of its state.
    void nexNotifieeAdd(NotifieeBase* notifiee) const { notifiees_.add(notifiee); }
    void nexNotifieeDel(NotifieeBase* notifiee) const { notifiees_.del(notifiee); }

  protected:
    /// Calls `callback` of all notifiees; `Interface` is what they implement. To be called once all
    /// is stored: callbacks read, write, and may drop this entity, which stays until they are
    /// through. Throws what a callback throws; notifiees behind that one are not told. Every
    /// notifiee must implement `Interface`: it is not asked. Without any this is one comparison.
    template <class Interface, auto callback, class... Keys>
    void nexNotify(Keys const&... keys) {
        if (notifiees_.empty()) return;
        Ptr<Entity> const hold(this);
        Lumen::Ring::Callback const mark(Lumen::ring);
        notifiees_.forEach([&](NotifieeBase* notifiee) {
            notifiee->nexDeliver([&] { (static_cast<Interface*>(notifiee)->*callback)(keys...); });
        });
    }

  private:
    Entity* parent_ = nullptr;
    mutable NotifieeList notifiees_;
};

/// The text of a key, for names: what its `operator<<` writes.
template <class Key>
String textOf(Key const& key) {
    std::ostringstream out;
    out << key;
    return out.str();
}

/// The part of a notification interface that all records share: the watched entity.
template <class Watched>
class NotifieeOf : public NotifieeBase {
  public:
    /// Held as long as it is watched; null for none, and once the reactor is retired. So a watched
    /// entity outlives its place in the tree; the reactor hears nothing of being left behind,
    /// unless it watches the collection, too.
    Watched const* notifier() const { return notifier_.get(); }
    /// Watches another entity, or none. That is a new registration, behind those who watch it
    /// already; the old entity's changes are heard no more, also those that are being told. Ends
    /// with `onNotifier` if the reactor is active, and throws what that throws. The same entity
    /// again does nothing. The old entity may go by this.
    void notifierIs(Ptr<Watched const> notifier) {
        if (notifier == notifier_) return;
        watch(std::move(notifier));
        nexDeliver([&] { onNotifier(); });
    }
    /// The reactor was pointed at another entity, or at none: `notifier()` tells. Not called at
    /// construction, nor as the reactor is retired.
    virtual void onNotifier() {}

    void nexRetire() override {
        NotifieeBase::nexRetire();
        watch(nullptr);
    }

  protected:
    /// Registers at once, but hears nothing before it is made active: those that are made earlier
    /// are told earlier. `notifier` may be null; `machine` is not held. Throws std::bad_alloc.
    template <class Machine>
    NotifieeOf(Ptr<Watched const> notifier, Machine* machine) : NotifieeBase(machine) {
        watch(std::move(notifier));
    }
    ~NotifieeOf() override { watch(nullptr); }

  private:
    void watch(Ptr<Watched const> notifier) {
        // First what may find no memory: whatever is watched then stays watched.
        if (notifier) notifier->nexNotifieeAdd(this);
        if (notifier_) notifier_->nexNotifieeDel(this);
        notifier_ = std::move(notifier);
    }

    Ptr<Watched const> notifier_;
};

/// For reactors that write to what they watch: `Interface`, with a writable notifier. It hears of
/// its own writing like everybody else.
template <class Interface, class Watched>
class WritingNotifiee : public Interface {
  public:
    Watched* notifier() const { return const_cast<Watched*>(Interface::notifier()); }
    void notifierIs(Ptr<Watched> notifier) { Interface::notifierIs(std::move(notifier)); }

  protected:
    template <class Machine>
    WritingNotifiee(Ptr<Watched> notifier, Machine* machine)
        : Interface(std::move(notifier), machine) {}
};

} // namespace Nex
