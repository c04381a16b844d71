// Entities and the notification of those who watch them.
//
// A mutator stores the new value, then calls the notifiees in the order in which they registered,
// and returns after all of them; a mutator that changes nothing calls nobody. During a callback
// notifiees may come and go, the entity may be changed again or dropped, and the callback may
// throw: a newcomer is not told of the change under way, one that left or became a zombie is not
// told any more, and an exception reaches the caller of the mutator with the value changed.
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

/// The base of all notification interfaces: a reactor seen by the dispatcher.
class NotifieeBase : public PtrInterface {
  public:
    /// Callbacks arrive only while this is set. Switching it on delivers nothing.
    bool hasNotificationActive() const { return active_; }
    void hasNotificationActiveIs(bool active) { active_ = active; }
    /// A zombie ignores every callback.
    bool zombie() const { return zombie_; }
    void zombieIs(bool zombie) { zombie_ = zombie; }
    /// The machine that the callbacks belong to, not owned; null for none. It may be a reactor
    /// itself, with a machine of its own.
    PtrInterface* machine() const { return machine_; }

    /// Silences the reactor for good: its owner lets go of it, and the machine may go first.
    virtual void nexRetire() { zombie_ = true; }

    /// Runs `callback` unless the reactor or its machine is silenced. The reactor and its machines
    /// stay alive until it returns.
    template <class F>
    [[gnu::always_inline]] void nexDeliver(F&& callback) {
        // Asked first: a machine that is being destroyed must not be held and let go again.
        if (!active_ || silenced()) return;
        Ptr<NotifieeBase> const holdReactor(this);
        Ptr<PtrInterface> const holdMachine(machine_);
        Ptr<PtrInterface> const holdOuter(machineIsReactor_ ? outer()->machine_ : nullptr);
        callback();
    }

    /// For reactors that start themselves up: whether they have.
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
/// comes and goes in constant time, however many there are.
class NotifieeList {
    /// From the second notifiee on.
    using Many = Set<NotifieeBase*>;

  public:
    NotifieeList() = default;
    NotifieeList(NotifieeList const&) = delete;
    NotifieeList& operator=(NotifieeList const&) = delete;
    ~NotifieeList() { delete many(); }

    bool empty() const { return head_ == 0; }
    void add(NotifieeBase* notifiee);
    void del(NotifieeBase* notifiee);

    /// Calls `tell` with each of those who are registered as it begins and still are as their turn
    /// comes. Calls nest.
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
    /// '/'. One that stands in an attribute goes by the attribute's name.
    String nexFullName() const;
    /// What `child` adds to the full name of the entity that holds it; empty when this does not.
    virtual String nexPlaceOf(Entity const&) const { return {}; }
    /// Null for a root, and for an entity that was removed from its tree. Not owned.
    Entity* nexParent() const { return parent_; }
    /// For whoever holds this entity in the tree, and takes it out before it goes itself.
    void nexParentIs(Entity* parent) { parent_ = parent; }

    // Registration, by the notifiees themselves. They are not owned, and take themselves out before
    // they go. Adding one throws std::bad_alloc; taking out one that is not there is no error.
    void nexNotifieeAdd(NotifieeBase* notifiee) const { notifiees_.add(notifiee); }
    void nexNotifieeDel(NotifieeBase* notifiee) const { notifiees_.del(notifiee); }

  protected:
    /// Calls `callback` of all notifiees; `Interface` is what they implement. To be called once all
    /// is stored: callbacks read, write, and may drop this entity, which stays until they are
    /// through. Throws what a callback throws; notifiees behind that one are not told.
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

/// The text of a key, for names.
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
    /// Held as long as it is watched; null for none, and once the reactor is retired.
    Watched const* notifier() const { return notifier_.get(); }
    /// Watches another entity, or none. That is a new registration; the old entity's changes are
    /// heard no more. Ends with `onNotifier`.
    void notifierIs(Ptr<Watched const> notifier) {
        if (notifier == notifier_) return;
        watch(std::move(notifier));
        nexDeliver([&] { onNotifier(); });
    }
    /// The reactor was pointed at another entity, or at none; not called at construction.
    virtual void onNotifier() {}

    void nexRetire() override {
        NotifieeBase::nexRetire();
        watch(nullptr);
    }

  protected:
    /// Registers at once, but hears nothing before it is made active. `notifier` may be null.
    template <class Machine>
    NotifieeOf(Ptr<Watched const> notifier, Machine* machine) : NotifieeBase(machine) {
        watch(std::move(notifier));
    }
    ~NotifieeOf() override { watch(nullptr); }

  private:
    void watch(Ptr<Watched const> notifier) {
        if (notifier_) notifier_->nexNotifieeDel(this);
        notifier_ = std::move(notifier);
        if (notifier_) notifier_->nexNotifieeAdd(this);
    }

    Ptr<Watched const> notifier_;
};

/// For reactors that write to what they watch: `Interface`, with a writable notifier.
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
