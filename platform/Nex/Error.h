// The errors that the framework raises. Each carries the complete text for the caller.
#pragma once

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

/// A broken precondition of the program itself: prints `text` to standard error and aborts.
[[noreturn]] void assertionFailed(char const* text);

} // namespace Nex
