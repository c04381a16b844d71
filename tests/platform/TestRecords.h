// Records with an attribute of every kind, and an observer of destructions, for the tests of the
// platform.
#pragma once

#include "Lox/IpAddr.h"
#include "Nex/Machine.h"
#include "Nex/Record.h"

#include <algorithm>
#include <functional>
#include <vector>

namespace Nex {

#define LEAF(ATTR, SET, MAP, RECORDS) ATTR(int, number, Number)

class Leaf : public RecordBase {
    NEX_RECORD(Leaf, String, name, LEAF)
};

#define TREE(ATTR, SET, MAP, RECORDS)                                                              \
    ATTR(int, number, Number)                                                                      \
    ATTR(Ptr<Leaf>, top, Top)                                                                      \
    SET(Lox::IpAddr, address, Address) /* held inside the record while it is small */              \
    SET(String, word, Word)                                                                        \
    MAP(Lox::IpAddr, std::uint8_t, octet, Octet) /* held inside the record while it is small */    \
    RECORDS(String, Leaf, leaf, Leaf)                                                              \
    RECORDS(String, Leaf, bud, Bud)

class Tree : public RecordBase {
    NEX_RECORD(Tree, String, name, TREE)
};

/// The frame of a reactor without a machine, active from the start.
template <class Interface>
struct Listener : Reactor<Interface, PtrInterface> {
    template <class Watched>
    explicit Listener(Ptr<Watched> watched)
        : Reactor<Interface, PtrInterface>(std::move(watched),
                                           static_cast<PtrInterface*>(nullptr)) {
        this->hasNotificationActiveIs(true);
    }
};
using TreeWatcher = Listener<Tree::Notifiee>;

/// Does what the test wants as it is told of anything.
struct ActingWatcher : TreeWatcher {
    using TreeWatcher::TreeWatcher;
    std::function<void()> act;
    void hear(auto const&) {
        if (act) act();
    }
};
using Watcher = Tree::NotifieeOfAll<ActingWatcher>;

/// Which objects have been destroyed since it was made, as long as it lives.
class Destructions : public DestructionObserver {
  public:
    Destructions() { PtrInterface::destructionObserverIs(this); }
    Destructions(Destructions const&) = delete;
    Destructions& operator=(Destructions const&) = delete;
    ~Destructions() { PtrInterface::destructionObserverIs(nullptr); }

    void onDestruction(PtrInterface const& object) override { gone_.push_back(&object); }
    auto count(PtrInterface const* object) const {
        return std::count(gone_.begin(), gone_.end(), object);
    }
    std::size_t size() const { return gone_.size(); }

  private:
    std::vector<PtrInterface const*> gone_;
};

} // namespace Nex
