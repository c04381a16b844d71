// Counted objects and the pointers that hold them.
//
// An object is born with one reference, which its factory (`newObject`) adopts; so a counted
// pointer that a constructor hands out and drops again never frees a half-built object. Copying a
// `Ptr` counts up, dropping it counts down, and the last one to go destroys the object. Only where
// destructors nest very deep, as along a chain of objects, does the inner object end after the
// outer.
//
// Two counted objects that hold each other never go: whoever owns holds a `Ptr`, the way back is a
// plain pointer, and the owner silences it before it goes (`nexDoZombieReactors`).
//
// A destructor may run anything that the last `Ptr` to other objects held, and runs wherever that
// pointer is dropped, so also deep inside somebody's callback.
#pragma once

#include "Nex/Arena.h"

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <ostream>
#include <utility>

namespace Nex {

class PtrInterface;

/// Told of every counted object whose last reference goes, before its destructor runs. For tests
/// and for programs that look for leaks. It looks and holds nothing: the count is 0 already, and a
/// `Ptr` made here would end the object once more. Not told of an object whose constructor throws.
class DestructionObserver {
  public:
    virtual void onDestruction(PtrInterface const&) = 0;

  protected:
    ~DestructionObserver() = default;
};

/// The base of every machine, reactor and record.
class PtrInterface {
  public:
    PtrInterface(PtrInterface const&) = delete;
    PtrInterface& operator=(PtrInterface const&) = delete;

    // For `Ptr`, which pairs them. Objects live on the heap and are never deleted by hand. Nobody
    // watches over the 32 bits.
    [[gnu::always_inline]] void nexRefInc() const {
        if (threadSafe_) [[unlikely]]
            std::atomic_ref(references_).fetch_add(1, std::memory_order_relaxed);
        else
            ++references_;
    }
    [[gnu::always_inline]] void nexRefDec() const {
        if (threadSafe_) [[unlikely]]
            nexRefDecShared();
        else if (--references_ == 0)
            nexZeroReferences();
    }
    /// For tests, and for who wants to know whether it is the last one; shared objects change it
    /// any time where threads count.
    std::uint32_t nexReferences() const { return references_; }

    /// Process-wide: count atomically, so that pointers may be copied and dropped on several
    /// threads. Set it before the first object is made. Notifications stay single-threaded.
    ///
    /// An object ends on the thread that drops its last pointer. What registers or silences itself
    /// as it goes (machines, reactors) or lets go of children (records) must end on the thread of
    /// the notifications. Off, at first: then one thread alone may touch counted objects.
    static void threadSafeIs(bool on);
    static bool threadSafe() { return threadSafe_; }
    /// Null for none. Not owned, and to be taken back before it goes.
    static void destructionObserverIs(DestructionObserver* observer) {
        destructionObserver_ = observer;
    }

    /// Turns all reactors whose machine this object is into zombies, or back: a zombie ignores
    /// every callback. A machine does this first when it goes. Takes no walk: the dispatcher asks.
    /// A callback that is on the stack already runs to its end.
    void nexDoZombieReactors(bool zombie) { zombieReactors_ = zombie; }
    bool nexZombieReactors() const { return zombieReactors_; }

    /// Objects come from one arena: a million small records cost no allocator headers, and those
    /// made together lie together. The arena keeps memory for later objects of the same size until
    /// it is trimmed. Beyond `Arena::largest` octets, and under the address sanitizer, each is an
    /// allocation of its own. Throws std::bad_alloc.
    [[gnu::always_inline]] static void* operator new(std::size_t bytes) {
        if (bytes > Arena::largest || unusualAllocation_) [[unlikely]]
            return allocateUnusually(bytes);
        return arena_.take(bytes);
    }
    static void operator delete(void* object, std::size_t bytes) noexcept {
        if (bytes > Arena::largest || unusualAllocation_) [[unlikely]]
            return freeUnusually(object, bytes);
        arena_.giveBack(object, bytes);
    }
    /// `Arena::trim` of the objects' arena, on any thread where pointers may be shared.
    static bool nexTrim(std::size_t most);

  protected:
    PtrInterface() = default;
    /// In this and in every destructor of a derived class the count is 0: a `Ptr` made of `this`
    /// there ends the object a second time. Plain pointers may be handed on.
    virtual ~PtrInterface() = default;

    /// What happens when the last reference goes.
    /// Called once, with the count at 0, on the thread that let go last.
    virtual void onZeroReferences() const { delete this; }

  private:
    void nexRefDecShared() const;
    void nexZeroReferences() const;
    void nexEnd() const;
    static void* allocateUnusually(std::size_t bytes);
    static void freeUnusually(void* object, std::size_t bytes) noexcept;

    static inline bool threadSafe_ = false;
    static inline constinit Arena arena_; ///< objects may outlive every other static object
    static bool unusualAllocation_;       ///< threads share the arena, or there is none
    static inline DestructionObserver* destructionObserver_ = nullptr;

    alignas(4) mutable std::uint32_t references_ = 1;
    bool zombieReactors_ = false;
};

/// A counted pointer, or null. As small as a plain one; `T` may be incomplete where nothing is
/// copied or dropped. Made from a plain pointer it counts up, so `this` may be handed out, also by
/// a constructor. Two are equal if they point at the same object; hash and text are those of the
/// address, and differ from run to run.
///
/// One pointer is for one thread at a time, also where counting is atomic. Assignment lets go of
/// the old object last, when the new one is in place: its destructor finds this pointer changed.
template <class T>
class Ptr {
  public:
    constexpr Ptr() = default;
    constexpr Ptr(std::nullptr_t) {}
    [[gnu::always_inline]] Ptr(T* object) : object_(object) { inc(); }
    [[gnu::always_inline]] Ptr(Ptr const& other) : object_(other.object_) { inc(); }
    Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    template <class U>
    requires std::is_convertible_v<U*, T*> Ptr(Ptr<U> const& other) : object_(other.get()) {
        inc();
    }
    template <class U>
    requires std::is_convertible_v<U*, T*> Ptr(Ptr<U>&& other)
    noexcept : object_(other.release()) {}
    [[gnu::always_inline]] ~Ptr() {
        if (object_) object_->nexRefDec();
    }
    Ptr& operator=(Ptr other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }

    /// Takes over the reference that a new object is born with.
    /// Null gives null.
    static Ptr adopt(T* object) {
        Ptr p;
        p.object_ = object;
        return p;
    }
    /// Hands the reference to the caller, who must adopt it.
    T* release() noexcept { return std::exchange(object_, nullptr); }

    /// Lent, good as long as somebody holds the object. The other two want one that is not null.
    T* get() const { return object_; }
    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }
    explicit operator bool() const { return object_ != nullptr; }

    friend bool operator==(Ptr const& a, Ptr const& b) { return a.object_ == b.object_; }
    friend bool operator==(Ptr const& a, std::nullptr_t) { return a.object_ == nullptr; }
    friend std::ostream& operator<<(std::ostream& out, Ptr const& p) {
        return out << static_cast<void const*>(p.object_);
    }

  private:
    [[gnu::always_inline]] void inc() const {
        if (object_) object_->nexRefInc();
    }

    T* object_ = nullptr;
};

/// The factory of all counted objects: the new object has one reference, the one returned. Throws
/// std::bad_alloc, and what the constructor throws. The object is gone then, whoever counts it: a
/// constructor that may throw takes back what it has handed out of `this`.
template <class T, class... Args>
Ptr<T> newObject(Args&&... args) {
    static_assert(alignof(T) <= alignof(std::uint64_t), "the arena is aligned no further");
    return Ptr<T>::adopt(new T(std::forward<Args>(args)...));
}

} // namespace Nex

template <class T>
struct std::hash<Nex::Ptr<T>> {
    std::size_t operator()(Nex::Ptr<T> const& p) const noexcept { return std::hash<T*>()(p.get()); }
};
