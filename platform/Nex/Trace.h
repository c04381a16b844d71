// Tracing, on two channels with the same text: the ring `Lumen::ring`, always, and text lines for
// a trace handle that is enabled at the point's level. One thread traces: the one that runs the
// machines.
//
//     static Nex::TraceHandle handle("FileName");
//     NEX_TRACE(handle, 7, "Adding source : % to group : %", source, group);
//     NEX_TRACE_ENTRY(handle, " ( % )", key);   // level 8: the full signature, then the format
#pragma once

#include "Lumen/Ring.h"

#include <string>
#include <string_view>

namespace Nex {

class TraceHandle;

/// Where text traces go. Set by the embedding program. It is called in the middle of whatever a
/// machine is doing, and machines take it that a trace changes nothing: it writes no record and
/// drops no machine, but notes the text.
class TraceSink {
  public:
    /// `text` is one line without its end, good until this returns. What this throws is dropped,
    /// and so is a line for whose text there is no memory: a trace disturbs nobody.
    virtual void onTrace(TraceHandle const&, unsigned level, std::string const& text) = 0;

  protected:
    ~TraceSink() = default;
};

/// The switch of one trace file. Handles are static objects, which never go; all of them can be
/// found by name once they are constructed, so not from other static objects' constructors.
class TraceHandle {
  public:
    /// `fileName` is not copied: a literal.
    explicit TraceHandle(char const* fileName);
    TraceHandle(TraceHandle const&) = delete;
    TraceHandle& operator=(TraceHandle const&) = delete;

    char const* fileName() const { return fileName_; }
    /// Points up to this level are written as text; at first 0, none. The ring has all of them,
    /// whatever the level.
    unsigned level() const { return level_; }
    void levelIs(unsigned level) { level_ = level; }
    bool enabled(unsigned level) const { return level <= level_; }

    /// Null when there is no handle of that name. A walk over all handles.
    static TraceHandle* handle(std::string_view fileName);
    /// Null for none. Not owned; must outlive its use.
    static void sinkIs(TraceSink* sink) { sink_ = sink; }

  private:
    friend class TraceHelper;
    static inline TraceSink* sink_ = nullptr;
    static inline TraceHandle* first_ = nullptr;

    char const* fileName_;
    unsigned level_ = 0;
    TraceHandle* next_;
};

/// Hands the text of one trace point to the sink when it goes: the text of the ring's entry.
class TraceHelper {
  public:
    TraceHelper(TraceHandle const& handle, Lumen::Entry const& entry)
        : handle_(handle), entry_(entry) {}
    TraceHelper(TraceHelper const&) = delete;
    TraceHelper& operator=(TraceHelper const&) = delete;
    ~TraceHelper();

  private:
    TraceHandle const& handle_;
    Lumen::Entry const entry_;
};

} // namespace Nex

/// Evaluates the values once, whether text is written or not: they are cheap to make.
/// They are texts, types named by `stringValue()`, or plain bytes with an `operator<<`; a text of
/// the C kind is not null. As many of them as `FORMAT` has '%', or it does not compile. Throws
/// nothing of its own, and allocates only where text is written.
#define NEX_TRACE_POINT(HANDLE, LEVEL, ENTRY, FORMAT, ...)                                         \
    do {                                                                                           \
        using NexTypes = decltype(::Lumen::typesOf(__VA_ARGS__));                                  \
        static constexpr ::Lumen::Point nexPoint{                                                  \
            __PRETTY_FUNCTION__, __LINE__, LEVEL, ENTRY, FORMAT, &NexTypes::print};                \
        static_assert(::Lumen::valuesIn(FORMAT) == ::Lumen::countOf(NexTypes()));                  \
        auto const& nexEntry = ::Lumen::ring.record(nexPoint __VA_OPT__(, ) __VA_ARGS__);          \
        if ((HANDLE).enabled(LEVEL)) [[unlikely]]                                                  \
            ::Nex::TraceHelper(HANDLE, nexEntry);                                                  \
    } while (false)
#define NEX_TRACE(HANDLE, LEVEL, ...) NEX_TRACE_POINT(HANDLE, LEVEL, false, __VA_ARGS__)
/// For functions only, not for lambdas: the signature is the function's own.
#define NEX_TRACE_ENTRY(HANDLE, ...) NEX_TRACE_POINT(HANDLE, 8, true, "" __VA_ARGS__)
