// The errors that the framework raises. Each carries the complete text for the caller.
#pragma once

#include <exception>
#include <stdexcept>
#include <string>

namespace Nex {

class Exception : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A keyed machine exists already and was built from other arguments.
class NameInUseException : public Exception {
    using Exception::Exception;
};

/// A value outside what an attribute or a mutator takes.
class RangeException : public Exception {
    using Exception::Exception;
};

/// A text that is not the text form of the value asked for.
class ParseException : public Exception {
    using Exception::Exception;
};

/// Has several things done although one of them fails: an error keeps nobody else waiting, and the
/// first one reaches the caller in the end.
class FirstError {
  public:
    /// Whether it was done.
    template <class F>
    bool attempt(F&& act) {
        try {
            act();
            return true;
        } catch (...) {
            if (!error_) error_ = std::current_exception();
            return false;
        }
    }
    void rethrow() const {
        if (error_) std::rethrow_exception(error_);
    }

  private:
    std::exception_ptr error_;
};

/// A broken precondition of the program itself: prints `text` to standard error and aborts.
[[noreturn]] void assertionFailed(char const* text);

} // namespace Nex
