// The errors that the framework raises. Each carries the complete text for the caller.
//
// Beside these, std::bad_alloc comes out of whatever stores, and everything out of callbacks: a
// notification ends at the callback that throws, and its error reaches whoever made the change.
#pragma once

#include <exception>
#include <stdexcept>
#include <string>

namespace Nex {

class Exception : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// A keyed machine exists already and was built from other arguments. It is left as it is; whoever
/// wants the new one deletes it first.
class NameInUseException : public Exception {
    using Exception::Exception;
};

/// A value outside what an attribute or a mutator takes. Nothing has been changed, and nobody told.
class RangeException : public Exception {
    using Exception::Exception;
};

/// A text that is not the text form of the value asked for. The message quotes it.
class ParseException : public Exception {
    using Exception::Exception;
};

/// Has several things done although one of them fails: an error keeps nobody else waiting, and the
/// first one reaches the caller in the end. Later ones are lost. Whoever does not call `rethrow`
/// means that nobody is to hear.
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
    /// Does nothing where all went well. Throws the exception object itself, of its own type.
    void rethrow() const {
        if (error_) std::rethrow_exception(error_);
    }

  private:
    std::exception_ptr error_;
};

/// A broken precondition of the program itself: prints `text` to standard error and aborts.
[[noreturn]] void assertionFailed(char const* text);

} // namespace Nex
