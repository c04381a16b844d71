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

#include <sstream>
#include <string>
#include <vector>

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

/// The notifiees of one entity, in the order of registration. One notifiee costs a pointer.
class NotifieeList {
  public:
    NotifieeList() = default;
    NotifieeList(NotifieeList const&) = delete;
    NotifieeList& operator=(NotifieeList const&) = delete;
    ~NotifieeList() { delete many(); }

    bool empty() const { return head_ == 0; }
    void add(NotifieeBase* notifiee);
    void del(NotifieeBase* notifiee);

    /// One walk over those who are registered as it begins. Passes nest.
    class Pass {
      public:
        [[gnu::always_inline]] explicit Pass(NotifieeList& list) : list_(list) {
            if (Many* const all = list.many()) {
                end_ = all->notifiees.size();
                ++all->passes;
            }
        }
        Pass(Pass const&) = delete;
        Pass& operator=(Pass const&) = delete;
        [[gnu::always_inline]] ~Pass() {
            // A list that became `Many` during this pass did not count it.
            Many* const all = list_.many();
            if (all && all->passes != 0 && --all->passes == 0 && all->holes) all->sweep();
        }
        /// The next notifiee that is still there, or null at the end.
        [[gnu::always_inline]] NotifieeBase* next() {
            Many* const all = list_.many();
            if (!all) return at_++ < end_ ? list_.one() : nullptr;
            while (at_ < end_)
                if (NotifieeBase* const notifiee = all->notifiees[at_++]) return notifiee;
            return nullptr;
        }

      private:
        NotifieeList& list_;
        std::size_t at_ = 0;
        std::size_t end_ = 1;
    };

  private:
    /// From the second notifiee on. Those who leave during a pass leave a null behind.
    struct Many {
        std::vector<NotifieeBase*> notifiees;
        unsigned passes = 0;
        bool holes = false;

        void sweep();
    };
    static constexpr std::uintptr_t tag = 1;

    Many* many() const { return head_ & tag ? reinterpret_cast<Many*>(head_ & ~tag) : nullptr; }
    NotifieeBase* one() const { return reinterpret_cast<NotifieeBase*>(head_); }

    std::uintptr_t head_ = 0; ///< nobody, one notifiee, or a tagged `Many`
};

/// A named record in the tree of the state store.
class Entity : public PtrInterface {
  public:
    /// Unique among the entity's siblings.
    virtual String nexName() const = 0;
    /// The names from the root of the tree down, joined with '/'.
    String nexFullName() const;
    /// Null for a root, and for an entity that was removed from its tree. Not owned.
    Entity* nexParent() const { return parent_; }
    void nexParentIs(Entity* parent) { parent_ = parent; }

    void nexNotifieeAdd(NotifieeBase* notifiee) const { notifiees_.add(notifiee); }
    void nexNotifieeDel(NotifieeBase* notifiee) const { notifiees_.del(notifiee); }

  protected:
    /// Calls `callback` of all notifiees; `Interface` is what they implement.
    template <class Interface, auto callback, class... Keys>
    void nexNotify(Keys const&... keys) {
        if (notifiees_.empty()) return;
        Ptr<Entity> const hold(this);
        Lumen::Ring::Callback const mark(Lumen::ring);
        NotifieeList::Pass pass(notifiees_);
        while (NotifieeBase* const notifiee = pass.next())
            notifiee->nexDeliver([&] { (static_cast<Interface*>(notifiee)->*callback)(keys...); });
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
