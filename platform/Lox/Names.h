// Names that are types of their own, so that one kind is not taken for another. They are compared
// octet by octet: nothing is folded, trimmed or checked for its characters.
#pragma once

#include "Nex/Error.h"

#include <compare>
#include <functional>
#include <ostream>
#include <string>

namespace Lox {

/// A text with order and hash; the base of the name types. Fixed once it is made.
class NameValue {
  public:
    NameValue() = default;
    explicit NameValue(std::string text) : text_(std::move(text)) {}

    /// Good as long as this name: one that a getter returned is gone at the end of the expression.
    std::string const& stringValue() const { return text_; }
    bool empty() const { return text_.empty(); }

    friend auto operator<=>(NameValue const&, NameValue const&) = default;
    friend std::ostream& operator<<(std::ostream& out, NameValue const& n) {
        return out << n.text_;
    }

  private:
    std::string text_;
};

/// An interface, by the name under which the configuration knows it. Its kernel device may have
/// another name. The empty name is no interface's. All records of an interface go by it, whatever
/// namespace it is in: interfaces of two namespaces have two names.
class IntfId : public NameValue {
  public:
    using NameValue::NameValue;
    friend auto operator<=>(IntfId const&, IntfId const&) = default;
};

/// The name of the namespace that the process was started in, and of nothing else: a namespace that
/// an operator calls so can't be told from it.
inline constexpr char DEFAULT_NS[] = "default";

/// A network namespace; at most 150 octets, otherwise Nex::RangeException. The empty name means
/// that none is known.
class NamespaceName : public NameValue {
  public:
    NamespaceName() = default;
    explicit NamespaceName(std::string text) : NameValue(std::move(text)) {
        if (stringValue().size() > 150)
            throw Nex::RangeException("NamespaceName::bytes > 150 not allowed");
    }
    static NamespaceName defaultNamespace() { return NamespaceName(DEFAULT_NS); }
    friend auto operator<=>(NamespaceName const&, NamespaceName const&) = default;
};

} // namespace Lox

namespace L3 {

/// A VRF, which lies in a network namespace; "default" is the default VRF, whose namespace is that
/// of the process, the empty name none.
class VrfName : public Lox::NameValue {
  public:
    using NameValue::NameValue;
    friend auto operator<=>(VrfName const&, VrfName const&) = default;
};

} // namespace L3

template <class T>
requires std::is_base_of_v<Lox::NameValue, T>
struct std::hash<T> {
    std::size_t operator()(T const& name) const noexcept {
        return std::hash<std::string>()(name.stringValue());
    }
};
